#include "json_read.hpp"

#include <cstdint>

#include "text.hpp"

namespace kplc::cli {
namespace {

constexpr unsigned kMaxDepth = 64;

class Reader {
public:
    explicit Reader(std::string_view text) : s_(text) {}

    std::optional<JsonValue> document(std::string &error) {
        auto v = value(0);
        blanks();
        if (v && at_ != s_.size()) v = fail("text after the value");
        if (!v) error = cat(error_, " at byte ", at_);
        return v;
    }

private:
    std::optional<JsonValue> fail(const char *why) {
        if (error_.empty()) error_ = why;
        return std::nullopt;
    }

    bool bad(const char *why) {
        fail(why);
        return false;
    }

    void blanks() {
        while (at_ < s_.size() && (s_[at_] == ' ' || s_[at_] == '\t' || s_[at_] == '\n' || s_[at_] == '\r')) ++at_;
    }

    bool word(std::string_view w) {
        if (s_.substr(at_, w.size()) != w) return false;
        at_ += w.size();
        return true;
    }

    std::optional<JsonValue> value(unsigned depth) {
        if (depth > kMaxDepth) return fail("nested too deep");
        blanks();
        if (at_ >= s_.size()) return fail("value expected");
        JsonValue v;
        const char c = s_[at_];
        if (c == '{') return object(depth);
        if (c == '[') return array(depth);
        if (c == '"') {
            v.kind = JsonValue::Kind::String;
            if (!string(v.text)) return std::nullopt;
            return v;
        }
        if (word("true") || word("false")) {
            v.kind = JsonValue::Kind::Bool;
            v.boolean = s_[at_ - 1] == 'e' && s_[at_ - 4] == 't';
            return v;
        }
        if (word("null")) return v;
        return number();
    }

    std::optional<JsonValue> number() {
        const std::size_t start = at_;
        auto digits = [this] {
            const std::size_t from = at_;
            while (at_ < s_.size() && s_[at_] >= '0' && s_[at_] <= '9') ++at_;
            return at_ > from;
        };
        if (at_ < s_.size() && s_[at_] == '-') ++at_;
        if (!digits()) return fail("value expected");
        if (at_ < s_.size() && s_[at_] == '.' && (++at_, !digits())) return fail("digits expected after '.'");
        if (at_ < s_.size() && (s_[at_] == 'e' || s_[at_] == 'E')) {
            ++at_;
            if (at_ < s_.size() && (s_[at_] == '+' || s_[at_] == '-')) ++at_;
            if (!digits()) return fail("digits expected in the exponent");
        }
        JsonValue v;
        v.kind = JsonValue::Kind::Number;
        v.text = std::string(s_.substr(start, at_ - start));
        return v;
    }

    std::optional<uint32_t> hex4() {
        if (at_ + 4 > s_.size()) return std::nullopt;
        uint32_t u = 0;
        for (int i = 0; i < 4; ++i) {
            const char c = s_[at_++];
            const int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10
                        : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
            if (d < 0) return std::nullopt;
            u = u << 4 | static_cast<uint32_t>(d);
        }
        return u;
    }

    bool string(std::string &out) {
        ++at_;  // the opening quote
        while (at_ < s_.size()) {
            const char c = s_[at_++];
            if (c == '"') return true;
            if (static_cast<unsigned char>(c) < 0x20) return bad("control character in a string");
            if (c != '\\') {
                out.push_back(c);
                continue;
            }
            if (at_ >= s_.size()) break;
            const char e = s_[at_++];
            switch (e) {
            case '"': case '\\': case '/': out.push_back(e); break;
            case 'b': out.push_back('\b'); break;
            case 'f': out.push_back('\f'); break;
            case 'n': out.push_back('\n'); break;
            case 'r': out.push_back('\r'); break;
            case 't': out.push_back('\t'); break;
            case 'u': {
                auto u = hex4();
                if (!u) return bad("bad \\u escape");
                // A surrogate pair spells one character beyond the 16-bit
                // plane; half a pair is no character at all.
                if (*u >= 0xD800 && *u < 0xDC00) {
                    const auto lo = word("\\u") ? hex4() : std::nullopt;
                    if (!lo || *lo < 0xDC00 || *lo >= 0xE000) return bad("half a surrogate pair");
                    *u = 0x10000 + ((*u - 0xD800) << 10) + (*lo - 0xDC00);
                } else if (*u >= 0xDC00 && *u < 0xE000) {
                    return bad("half a surrogate pair");
                }
                append_utf8(out, *u);
                break;
            }
            default: return bad("bad escape in a string");
            }
        }
        return bad("unterminated string");
    }

    std::optional<JsonValue> array(unsigned depth) {
        ++at_;
        JsonValue v;
        v.kind = JsonValue::Kind::Array;
        blanks();
        if (word("]")) return v;
        while (true) {
            auto item = value(depth + 1);
            if (!item) return std::nullopt;
            v.items.push_back(std::move(*item));
            blanks();
            if (word("]")) return v;
            if (!word(",")) return fail("',' or ']' expected");
        }
    }

    std::optional<JsonValue> object(unsigned depth) {
        ++at_;
        JsonValue v;
        v.kind = JsonValue::Kind::Object;
        blanks();
        if (word("}")) return v;
        while (true) {
            blanks();
            std::string key;
            if (at_ >= s_.size() || s_[at_] != '"') return fail("member name expected");
            if (!string(key)) return std::nullopt;
            blanks();
            if (!word(":")) return fail("':' expected");
            auto member = value(depth + 1);
            if (!member) return std::nullopt;
            v.members.emplace_back(std::move(key), std::move(*member));
            blanks();
            if (word("}")) return v;
            if (!word(",")) return fail("',' or '}' expected");
        }
    }

    std::string_view s_;
    std::size_t at_ = 0;
    std::string error_;
};

}  // namespace

const JsonValue *JsonValue::get(std::string_view key) const {
    for (const auto &[name, v] : members)
        if (name == key) return &v;
    return nullptr;
}

std::optional<JsonValue> parse_json(std::string_view text, std::string &error) {
    return Reader(text).document(error);
}

}  // namespace kplc::cli
