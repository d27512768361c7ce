// A whole tag file loaded by kplc_build_tagtable. The loader reads the file in
// chunks of at most 255 characters and keeps one record per chunk that ends in
// a line feed, so without 0 bytes in the file (which hide the rest of their
// chunk) there is exactly one record per line feed, and a file without one
// fails to load.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kplc/tags.h"
#include "workspace.hpp"

namespace {

const std::string &file_name() {
    static const std::string name = [] {
        kplc::fuzz::silence_output();  // the loader's messages
        // A memory-backed folder when there is one: the file is rewritten
        // for every input.
        std::string n = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm/kplc-fuzz-tags-XXXXXX" : "/tmp/kplc-fuzz-tags-XXXXXX";
        const int fd = ::mkstemp(n.data());
        if (fd < 0) std::abort();
        ::close(fd);
        std::atexit([] { ::unlink(file_name().c_str()); });
        return n;
    }();
    return name;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string &name = file_name();
    const int fd = ::open(name.c_str(), O_WRONLY | O_TRUNC);
    if (fd < 0) std::abort();
    if (::write(fd, data, size) != static_cast<ssize_t>(size)) std::abort();
    ::close(fd);

    const auto line_feeds = static_cast<uint32_t>(std::count(data, data + size, '\n'));
    const bool has_zero = std::memchr(data, 0, size) != nullptr;

    kplc_tag_str *table = nullptr;
    std::string arg = name;
    const uint32_t count = kplc_build_tagtable(&table, arg.data());
    if (count == 0) {
        if (table != nullptr) std::abort();  // nothing is handed out on failure
        if (!has_zero && line_feeds != 0) std::abort();
        return 0;
    }
    if (table == nullptr || count > line_feeds) std::abort();
    if (!has_zero && count != line_feeds) std::abort();
    for (uint32_t i = 0; i < count; ++i) {
        if (std::memchr(table[i].name, 0, sizeof table[i].name) == nullptr) std::abort();
        if (std::memchr(table[i].local_name, 0, sizeof table[i].local_name) == nullptr) std::abort();
    }
    std::free(table);
    return 0;
}
