// The PLC's two catalogue responses as xplc_getlocalMSG meets them: the input
// is the script of replies (the first catalogue answer, then the program
// catalogue). Whatever arrives, every loaded program name stays terminated
// inside its field, the count stays within the table, a failure leaves the
// count as it was, and no descriptor is left behind.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "input.hpp"
#include "scripted_link.hpp"
#include "workspace.hpp"
#include "state/process_state.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    auto &ws = kplc::fuzz::workspace();
    auto &st = kplc::state();
    kplc::fuzz::Input in({data, size});
    // Start from a catalogue of one known entry, so a failure that changes it shows.
    st.link.catalogue_size = 1;
    std::strcpy(st.link.catalogue[0].name, "Main");
    int rc;
    {
        kplc::fuzz::ScriptedLink link(*ws.settings(), in.replies());
        rc = xplc_getlocalMSG(ws.settings());
        if (link.requests() > 2) std::abort();
    }
    if (rc != ER_OK && rc != ER_INVALID) std::abort();
    // A refused catalogue keeps the old one; a loaded one holds at most the
    // count the PLC announced, each id one byte as sent.
    if (rc != ER_OK && st.link.catalogue_size != 1) std::abort();
    if (st.link.catalogue_size > 255) std::abort();
    for (uint32_t i = 0; i < st.link.catalogue_size; ++i)
        if (st.link.catalogue[i].local_id > 255) std::abort();
    for (uint32_t i = 0; i < st.link.catalogue_size; ++i)
        if (std::memchr(st.link.catalogue[i].name, 0, sizeof st.link.catalogue[i].name) == nullptr) std::abort();
    if (kplc::fuzz::descriptor_leaked()) std::abort();
    return 0;
}
