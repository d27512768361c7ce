// Element names: index suffixes by shape and the string forms with a
// character position.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>

#include "protocol/names.hpp"

namespace {

using kplc::proto::element_name;
using kplc::proto::string_element_name;

kplc_tag_str tag(const char *name, uint32_t a0, uint32_t a1, uint32_t b0 = 0, uint32_t b1 = 0, uint32_t c0 = 0,
                 uint32_t c1 = 0) {
    kplc_tag_str t{};
    std::strncpy(t.name, name, sizeof t.name - 1);
    t.ar_min = a0;
    t.ar_max = a1;
    t.ar1_min = b0;
    t.ar1_max = b1;
    t.ar2_min = c0;
    t.ar2_max = c1;
    return t;
}

std::string name_of(const kplc_tag_str &t, var_attr shape, uint32_t e) {
    std::array<char, 256> out{};
    auto len = element_name(out, t, shape, e);
    if (!len) return "<refused>";
    EXPECT_EQ(*len, std::strlen(out.data()));
    return out.data();
}

std::string string_name_of(const kplc_tag_str &t, uint32_t element, uint32_t offset) {
    std::array<char, 256> out{};
    auto len = string_element_name(out, t, element, offset);
    return len ? std::string(out.data()) : "<refused>";
}

TEST(ElementName, SuffixesFollowTheShapeInRowMajorOrder) {
    struct Case {
        kplc_tag_str t;
        var_attr shape;
        uint32_t e;
        const char *want;
    } cases[] = {
        {tag("T", 1, 9), ARRAY, 2, "T[#3]"},
        {tag("T", 1, 9), ARRAY, 4, "T[#5]"},
        {tag("M", 0, 2, 0, 3), ARRAY2, 5, "M[#1,#1]"},
        {tag("D", 1, 3, 0, 4), ARRAY2, 7, "D[#2,#2]"},
        {tag("C", 0, 1, 0, 2, 0, 3), ARRAY3, 13, "C[#1,#0,#1]"},
        {tag("C", 0, 1, 0, 2, 0, 3), ARRAY3, 23, "C[#1,#2,#3]"},
        {tag("Counter", 0, 0), NORMAL, 0, "Counter"},
        {tag("Cell[#1,2].Val", 0, 0), STRUCT, 0, "Cell[#1,2].Val"},
        {tag("Neg", static_cast<uint32_t>(-2), 2), ARRAY, 1, "Neg[#-1]"},
    };
    for (const auto &c : cases) EXPECT_EQ(name_of(c.t, c.shape, c.e), c.want) << c.want;
}

TEST(ElementName, RefusesWhatCannotBeNamed) {
    // An inverted second dimension has size 0: no division by it.
    EXPECT_EQ(name_of(tag("M", 0, 2, 1, 0), ARRAY2, 3), "<refused>");
    EXPECT_EQ(name_of(tag("C", 0, 1, 0, 2, 4, 3), ARRAY3, 3), "<refused>");
    // A name that fills the output leaves no room for the suffix.
    std::string long_name(250, 'x');
    EXPECT_EQ(name_of(tag(long_name.c_str(), 0, 9), ARRAY, 1000000), "<refused>");
    EXPECT_EQ(name_of(tag(long_name.c_str(), 0, 9), ARRAY, 1), long_name + "[#1]");
    std::array<char, 4> small{};
    EXPECT_FALSE(element_name(small, tag("Name", 0, 0), NORMAL, 0));
}

TEST(StringElementName, ChoosesTheFormByTheUpperBounds) {
    struct Case {
        kplc_tag_str t;
        uint32_t element, offset;
        const char *want;
    } cases[] = {
        {tag("Msg", 0, 0), 0, 0, "Msg[#0]"},
        {tag("Msg", 0, 0), 2, 25, "Msg[#25]"},  // single string: the offset alone
        {tag("T", 0, 3), 2, 5, "T[#2][#5]"},
        {tag("T", 0, 3), 3, 0, "T[#3][#0]"},
        {tag("S", 0, 1, 1, 3), 5, 4, "S[#1,#3][#4]"},
        {tag("S", 0, 1, 0, 2, 0, 3), 13, 7, "S[#1,#0,#1][#7]"},
    };
    for (const auto &c : cases) EXPECT_EQ(string_name_of(c.t, c.element, c.offset), c.want) << c.want;
}

}  // namespace
