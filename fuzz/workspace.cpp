#include "workspace.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "scripted_link.hpp"
#include "state/process_state.hpp"

namespace kplc::fuzz {

const std::string_view kTagFile =
    "1,Counter,DINT,,4,,DM100,-1\n"
    "2,Speed,INT,,2,,,-1\n"
    "3,Setpoint,UINT,,2,,EM10,-1\n"
    "4,Total,UDINT,,4,,,-1\n"
    "5,Ratio,REAL,,4,,,-1\n"
    "6,Precise,LREAL,,8,,,-1\n"
    "7,Uptime,LTIME,,8,,,-1\n"
    "8,Lamp,BOOL,,1,,MR100,-1\n"
    "9,Ready,BOOL,,1,,,-1\n"
    "10,Alarm,BOOL,,1,,B100,-1\n"
    "11,Flags,BOOL,[0..31],4,,,-1\n"
    "12,Relays,BOOL,[0..15],2,,MR200,-1\n"
    "13,Inputs,BOOL,[0..15],2,,EM300,-1\n"
    "14,Levels,INT,[0..9],20,,EM200,-1\n"
    "15,Grid,DINT,[0..2_0..3],48,,,-1\n"
    "16,Cube,INT,[0..1_0..2_0..3],48,,,-1\n"
    "17,Weights,REAL,[1..8],32,,,-1\n"
    "18,Samples,LREAL,[0..3],32,,,-1\n"
    "19,Title,STRING,,20,,,-1\n"
    "20,Lines,STRING,[0..3],84,,,-1\n"
    "21,Labels,STRING,[0..1_0..2],60,,,-1\n"
    "22,Note,WSTRING,,40,,,-1\n"
    "23,Axis[2,3],REAL,,4,,,-1\n"
    "24,Motor.Speed,INT,,2,,,-1\n"
    "25,Motor.Run,BOOL,,1,,,-1\n"
    "26,Motor.Name,STRING,,16,,,-1\n"
    "27,Motor.History,INT,[0..3],8,,,-1\n"
    "28,Motor.Bits,BOOL,[0..7],1,,,-1\n"
    "29,Cell[1][2].Val,DINT,,4,,,-1\n"
    "30,Cell[1][2].On,BOOL,,1,,,-1\n"
    "31,Cell[1][2].Tag,STRING,,8,,,-1\n"
    "32,Cell[1][2].Bits,BOOL,[0..15],2,,,-1\n"
    "33,Main.Step,UINT,,2,,,0\n"
    "34,Main.Busy,BOOL,,1,,,0\n"
    "35,Main.Buffer,INT,[0..4],10,,,0\n"
    "36,Aux.Count,DINT,,4,,,1\n"
    "37,Aux.Message,STRING,,12,,,1\n"
    "38,Spare,LINT,,8,,,-1\n"
    "39,Raw,BYTE,[0..7],8,,,-1\n"
    "40,Wide,STRING2,,10,,,-1\n"
    "41,Empty,STRING,,0,,,-1\n"
    "42,Hollow,INT,[3..2],4,,,-1\n"
    "43,Coils,BOOL,[0..15],2,,CR10,-1\n"
    "44,Links,BOOL,[0..15],2,,LR10,-1\n"
    "45,Zones,BOOL,[0..15],2,,ZF10,-1\n"
    "46,Regs,BOOL,[0..15],2,,R010,-1\n"
    "47,Far,BOOL,,1,,,9\n"
    "48,Far.Word,INT,,2,,,12\n"
    "49,Big,INT,[0..99_0..99_0..99],2000000,,,-1\n"
    "50,Main.Name,WSTRING,[0..1],84,,,0\n";

std::size_t tag_count() {
    std::size_t n = 0;
    for (const char c : kTagFile) n += c == '\n' ? 1 : 0;
    return n;
}

std::size_t value_width(unsigned reg_id) {
    std::size_t line = 1;
    std::size_t start = 0;
    for (; line < reg_id && start < kTagFile.size(); ++line) start = kTagFile.find('\n', start) + 1;
    if (reg_id == 0 || start >= kTagFile.size()) return 0;
    std::string text(kTagFile.substr(start, kTagFile.find('\n', start) + 1 - start));
    kplc_tag_str tag{};
    kplc_pase_str(text.data(), &tag);
    return (tag.bits + 7u) / 8u;
}

namespace {

// A loopback port bound but not listening: connecting to it is refused at once.
uint16_t refusing_port() {
    const int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(harness::kLoopback);
    socklen_t len = sizeof a;
    if (s < 0 || ::bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
        ::getsockname(s, reinterpret_cast<sockaddr *>(&a), &len) != 0)
        std::abort();
    // Kept open (and bound) for the life of the process so the port stays refused.
    return ntohs(a.sin_port);
}

}  // namespace

void silence_output() {
    if (std::getenv("KPLC_FUZZ_VERBOSE") != nullptr) return;
    const int null = ::open("/dev/null", O_WRONLY);
    if (null >= 0) ::dup2(null, STDOUT_FILENO);
    if (null > STDOUT_FILENO) ::close(null);
}

Workspace::Workspace() : Instance(harness::kLoopback, refusing_port()) {
    silence_output();
    if (folder.write_tag_file(harness::kLoopback, 0, kTagFile).empty()) std::abort();
    // A fixed catalogue, so program-local tags map to the same program ids in
    // every run: Main is program 0 and Aux program 1, as the simulator numbers
    // them from this tag file (the seeds are its real answers).
    auto &st = kplc::state();
    st.link.catalogue[0].local_id = 0;
    std::strcpy(st.link.catalogue[0].name, "Main");
    st.link.catalogue[1].local_id = 1;
    std::strcpy(st.link.catalogue[1].name, "Aux");
    st.link.catalogue_size = 2;
    (void)descriptor_leaked();  // sets the mark
}

Workspace &workspace() {
    static Workspace ws;
    return ws;
}

}  // namespace kplc::fuzz
