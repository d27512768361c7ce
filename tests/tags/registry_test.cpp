// The registry of loaded tables: newest first, by exact file name.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <string>

#include "kplc/kplc.h"

namespace {

TEST(Registry, NewestEntryOfANameIsFound) {
    kplc_plc_tag head{};
    kplc_init_tag(&head);
    kplc_tag_str first[1]{}, second[2]{}, newer[3]{};
    std::string a = "./driver/PLC7F000001_0.csv", b = "./driver/PLC7F000001_1.csv", c = "./driver/PLC7F000001_2.csv";

    ASSERT_EQ(kplc_add_tagtable(&head, a.data(), first, 1), 1);
    ASSERT_EQ(kplc_add_tagtable(&head, b.data(), second, 2), 1);
    EXPECT_EQ(head.list.next, &kplc_get_tagtable(&head, b.data())->list) << "newest entry first in the ring";
    EXPECT_EQ(kplc_get_tagtable(&head, a.data())->tag_table, first);
    EXPECT_EQ(kplc_get_tagtable(&head, b.data())->id_max, 2u);
    EXPECT_EQ(kplc_get_tagtable(&head, c.data()), nullptr);

    ASSERT_EQ(kplc_add_tagtable(&head, a.data(), newer, 3), 1);
    EXPECT_EQ(kplc_get_tagtable(&head, a.data())->tag_table, newer);
    a[0] = 'X';  // the entry keeps its own copy of the name
    EXPECT_EQ(kplc_get_tagtable(&head, a.data()), nullptr);

    // The registry never releases an entry; the test does, before emptying the ring.
    for (list_head *link = head.list.next; link != &head.list;) {
        auto *entry = reinterpret_cast<kplc_plc_tag *>(reinterpret_cast<char *>(link) - offsetof(kplc_plc_tag, list));
        link = link->next;
        std::free(entry->name);
        std::free(entry);
    }
    kplc_init_tag(&head);
    EXPECT_EQ(kplc_get_tagtable(&head, b.data()), nullptr);
}

}  // namespace
