#include "driver_api.hpp"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <vector>

#include "format/tag_limits.hpp"
#include "text.hpp"

namespace kplc::cli {
namespace {

using format::kIoctlMultiRead;
constexpr const char *kLibraryName = "libkplc.so";
// The installed driver, by its SONAME (package libkplc0, no -dev package needed).
constexpr const char *kInstalledName = "libkplc.so.0";

std::filesystem::path executable_dir() {
    std::error_code ec;
    const auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::filesystem::path{} : exe.parent_path();
}

template <typename F>
bool bind(void *handle, const char *name, F &fn, std::string &missing) {
    fn = reinterpret_cast<F>(dlsym(handle, name));
    if (fn == nullptr) missing += cat(missing.empty() ? "" : ", ", name);
    return fn != nullptr;
}

}  // namespace

std::optional<DriverApi> load_driver(const std::string &explicit_path, std::string &error) {
    std::vector<std::string> candidates;
    if (!explicit_path.empty()) {
        // A bare name would make dlopen search the system paths; a path given
        // on the command line means that file.
        candidates.push_back(explicit_path.find('/') == std::string::npos ? cat("./", explicit_path) : explicit_path);
    } else {
        const auto dir = executable_dir();
        if (!dir.empty())
            for (const auto &rel : {"", "../../src", "../lib"}) {
                const auto p = (dir / rel / kLibraryName).lexically_normal();
                if (std::filesystem::exists(p)) candidates.push_back(p.string());
            }
        candidates.emplace_back(kInstalledName);
    }
    for (const std::string &path : candidates) {
        void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            const char *why = dlerror();
            error += cat(error.empty() ? "" : "; ", why != nullptr ? std::string_view(why) : path);
            continue;
        }
        DriverApi api;
        api.handle = handle;
        api.path = path;
        std::string missing;
        bind(handle, "kplc_create", api.create, missing);
        bind(handle, "kplc_init", api.init, missing);
        bind(handle, "kplc_mulity_read", api.mulity_read, missing);
        bind(handle, "kplc_write", api.write, missing);
        bind(handle, "kplc_driver_info", api.driver_info, missing);
        bind(handle, "kplc_ioctrl", api.ioctrl, missing);
        bind(handle, "kplc_pase_str", api.pase_str, missing);
        if (!missing.empty()) {
            error += cat(error.empty() ? "" : "; ", path, " lacks ", missing);
            dlclose(handle);
            continue;
        }
        error.clear();
        return api;
    }
    return std::nullopt;
}

Session::Session(const DriverApi &api, const Endpoint &endpoint) : api_(api), endpoint_(endpoint) {
    // The runtime's port record: the PLC address travels in _baud and the port
    // in _datBits; the remaining fields keep the runtime's neutral values.
    prop_._sizeBase = sizeof(CommunicationProperty);
    prop_._sizeExtra = 0;  // no extra records behind the record
    prop_._workMode = endpoint.udp ? 1 : 0;
    prop_._baud = endpoint.addr;
    prop_._datBits = endpoint.port;
    prop_._plcGlobalTimeout = endpoint.timeout;
    prop_._protocalTimeout1 = 50;
}

Session::~Session() {
    // The driver has no teardown entry; its instance record came from the C heap.
    std::free(drv_);
}

bool Session::open(std::string &error) {
    drv_ = api_.create();
    if (drv_ == nullptr) {
        error = "kplc_create failed";
        return false;
    }
    const unsigned rc = api_.init(drv_, &prop_);
    if (rc != ER_OK) {
        error = cat("kplc_init failed: ", describe_result(rc));
        return false;
    }
    return true;
}

std::size_t Session::batch_limit() {
    Mulity_Property props{};
    api_.ioctrl(drv_, &prop_, kIoctlMultiRead, nullptr, reinterpret_cast<unsigned char *>(&props));
    return props.nReg > 0 ? static_cast<std::size_t>(props.nReg) : 1;
}

unsigned Session::read(std::span<Reg> regs, std::span<DrvRWBuf *> buffers) {
    return api_.mulity_read(drv_, &prop_, regs.data(), static_cast<int>(regs.size()), buffers.data());
}

unsigned Session::write(Reg &reg, uint8_t *data) { return api_.write(drv_, &prop_, &reg, data); }

Reg Session::reg(uint16_t reg_id, uint32_t reg_addr, uint32_t reg_nums) const {
    Reg r{};
    r.regId = reg_id;
    r.regAddr = reg_addr;
    r.regNums = reg_nums;
    r._devIndex = endpoint_.dev;
    return r;
}

std::string describe_result(uint32_t code) {
    switch (code) {
    case ER_OK: return "ok";
    case ER_OTHER: return "error (1)";
    case ER_TIMEOUT: return "no link to the PLC, or its reply was too short (2)";
    case ER_INVALID: return "the driver refused the request or the exchange failed (3)";
    case KPLC_ER_NO_WRITER: return "the driver has no writer for this tag's type or shape (0xFFFFFFFF)";
    case kNotRead: return "the driver did not read it (its program scope is not read)";
    default: return cat("result ", code);
    }
}

}  // namespace kplc::cli
