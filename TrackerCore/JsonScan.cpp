#include "TrackerCore/JsonScan.h"

#include "TrackerCore/Json.h"
#include "TrackerCore/Text.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>
#include <type_traits>

namespace skeldrin::json_scan {
namespace {

constexpr int kMaxDepth = 512;
// Small enough to stay in the cache and to be touched once; fresh pages cost more than the scan.
constexpr std::size_t kBufferSize = 64 * 1024;

// Eight bytes at a time: the high bit of each byte that is '"', '\\', a control character or not ASCII.
// Only the lowest flag is exact (borrows can set flags above it), which is all the scan uses.
inline std::uint64_t specialBytes(std::uint64_t word)
{
    constexpr std::uint64_t ones = 0x0101010101010101ULL, highs = 0x8080808080808080ULL;
    const std::uint64_t quote = word ^ (ones * '"'), backslash = word ^ (ones * '\\');
    return (((quote - ones) & ~quote) | ((backslash - ones) & ~backslash) | (word - ones * 0x20) | word) & highs;
}

class Scanner {
public:
    explicit Scanner(std::string_view text)
        : p_(text.data())
        , end_(text.data() + text.size())
        , base_(text.data())
    {
    }
    explicit Scanner(const Reader& reader)
        : reader_(&reader)
        , buffer_(new char[kBufferSize])
    {
        p_ = end_ = base_ = buffer_.get();
    }

    [[noreturn]] void fail(const char* what) const
    {
        throw DecodingError(std::string("not valid JSON: ") + what + " at byte " +
                            std::to_string(offset_ + static_cast<std::size_t>(p_ - base_)));
    }

    void byteOrderMark()
    {
        // Tolerated, as full parsers do.
        if (available(3) && std::memcmp(p_, "\xEF\xBB\xBF", 3) == 0) p_ += 3;
    }

    void whitespace()
    {
        for (;;) {
            while (p_ < end_ && (*p_ == ' ' || *p_ == '\n' || *p_ == '\r' || *p_ == '\t')) ++p_;
            if (p_ < end_ || !refill(1)) return;
        }
    }
    bool atEnd() { return p_ == end_ && !refill(1); }
    char peek() { return p_ < end_ || refill(1) ? *p_ : '\0'; }
    void expect(char c)
    {
        if (peek() != c) fail(c == ':' ? "expected ':'" : "unexpected character");
        ++p_;
    }

    // The text from here to where endCapture is called, also across refills of the buffer.
    void beginCapture()
    {
        capturing_ = true;
        captureFrom_ = p_;
        captured_.clear();
    }
    std::string_view endCapture()
    {
        capturing_ = false;
        if (!reader_) return std::string_view(captureFrom_, static_cast<std::size_t>(p_ - captureFrom_));
        captured_.append(captureFrom_, p_);
        return captured_;
    }

    // Skips one string (p_ at its opening quote). Returns whether it had escapes.
    bool string()
    {
        expect('"');
        bool escaped = false;
        for (;;) {
            while (end_ - p_ >= 8) {
                std::uint64_t word;
                std::memcpy(&word, p_, 8);
                if (const std::uint64_t special = specialBytes(word)) {
                    p_ += std::countr_zero(special) / 8;
                    goto special;
                }
                p_ += 8;
            }
            while (p_ < end_) {
                const auto c = static_cast<unsigned char>(*p_);
                if (c == '"' || c == '\\' || c < 0x20 || c >= 0x80) goto special;
                ++p_;
            }
            if (!refill(1)) fail("unterminated string");
            continue;
        special:
            const auto c = static_cast<unsigned char>(*p_);
            if (c == '"') {
                ++p_;
                return escaped;
            }
            if (c == '\\') {
                escaped = true;
                escape();
            } else if (c < 0x20) {
                fail("control character in string");
            } else {
                utf8();
            }
        }
    }

    // Skips one value; the number of its elements when it is an array.
    std::size_t value(int depth)
    {
        if (depth > kMaxDepth) fail("nested too deeply");
        whitespace();
        switch (peek()) {
        case '"': string(); return 0;
        case '{': object([&] { value(depth + 1); }); return 0;
        case '[': return array(depth);
        case 't': literal("true"); return 0;
        case 'f': literal("false"); return 0;
        case 'n': literal("null"); return 0;
        default: number(); return 0;
        }
    }

    // Walks the object at p_, calling member(name), or member() when names are not needed, with p_
    // before each member's value, which it skips.
    template <typename Member> void object(Member&& member)
    {
        expect('{');
        whitespace();
        if (peek() == '}') return void(++p_);
        for (;;) {
            whitespace();
            if (peek() != '"') fail("expected a member name");
            if constexpr (std::is_invocable_v<Member&>) {
                string();
                whitespace();
                expect(':');
                member();
            } else {
                const std::string name = key();
                whitespace();
                expect(':');
                whitespace();
                member(name);
            }
            whitespace();
            if (peek() == ',') {
                ++p_;
                continue;
            }
            expect('}');
            return;
        }
    }

    // Checks the whole document; walk(depth) is called with p_ at its top-level object.
    template <typename Walk> void document(Walk&& walk)
    {
        byteOrderMark();
        whitespace();
        if (peek() != '{') {
            value(0); // a malformed document is reported as such, before its shape
            whitespace();
            if (!atEnd()) fail("unexpected text after the value");
            throw DecodingError("the hook payload is not a JSON object");
        }
        walk(0);
        whitespace();
        if (!atEnd()) fail("unexpected text after the value");
    }

    void wantedMembers(int depth, const std::vector<Wanted>& wanted, std::map<std::string, Member>& found)
    {
        object([&](const std::string& name) {
            const auto it = std::find_if(wanted.begin(), wanted.end(), [&](const Wanted& w) { return w.name == name; });
            if (it == wanted.end()) return void(value(depth + 1));
            Member kept;
            if (!it->members.empty() && peek() == '{') {
                if (depth + 1 > kMaxDepth) fail("nested too deeply");
                kept.raw = "{}";
                wantedMembers(depth + 1, it->members, kept.members);
            } else {
                beginCapture();
                kept.elements = value(depth + 1);
                kept.raw = endCapture();
            }
            found[name] = std::move(kept); // a later duplicate wins
        });
    }

private:
    std::string key()
    {
        beginCapture();
        const bool escaped = string();
        const std::string_view raw = endCapture();
        if (escaped) return Json::parse(raw).get<std::string>();
        return std::string(raw.substr(1, raw.size() - 2));
    }

    std::size_t array(int depth)
    {
        expect('[');
        whitespace();
        if (peek() == ']') return ++p_, 0;
        for (std::size_t count = 1;; ++count) {
            value(depth + 1);
            whitespace();
            if (peek() == ',') {
                ++p_;
                continue;
            }
            expect(']');
            return count;
        }
    }

    // Whether n bytes are there after p_, reading more when needed.
    bool available(std::size_t n) { return static_cast<std::size_t>(end_ - p_) >= n || refill(n); }

    // Moves what is left to the buffer's start and reads more, until n bytes are there or the input ends.
    bool refill(std::size_t n)
    {
        if (!reader_ || ended_) return static_cast<std::size_t>(end_ - p_) >= n;
        if (capturing_) captured_.append(captureFrom_, p_);
        const std::size_t left = static_cast<std::size_t>(end_ - p_);
        offset_ += static_cast<std::size_t>(p_ - base_);
        std::memmove(buffer_.get(), p_, left);
        p_ = captureFrom_ = base_ = buffer_.get();
        end_ = p_ + left;
        do {
            const std::size_t got = (*reader_)(const_cast<char*>(end_), kBufferSize - left);
            if (got == 0) ended_ = true;
            end_ += got;
        } while (static_cast<std::size_t>(end_ - p_) < n && !ended_);
        return static_cast<std::size_t>(end_ - p_) >= n;
    }

    void literal(std::string_view word)
    {
        if (!available(word.size()) || std::string_view(p_, word.size()) != word) fail("unexpected character");
        p_ += word.size();
    }

    void digits()
    {
        if (peek() < '0' || peek() > '9') fail("malformed number");
        for (;;) {
            while (p_ < end_ && *p_ >= '0' && *p_ <= '9') ++p_;
            if (p_ < end_ || !refill(1)) return;
        }
    }

    void number()
    {
        if (peek() == '-') ++p_;
        if (peek() == '0')
            ++p_;
        else
            digits();
        if (peek() == '.') {
            ++p_;
            digits();
        }
        if (peek() == 'e' || peek() == 'E') {
            ++p_;
            if (peek() == '+' || peek() == '-') ++p_;
            digits();
        }
    }

    unsigned hex4()
    {
        if (end_ - p_ < 4) fail("truncated \\u escape");
        unsigned v = 0;
        for (int i = 0; i < 4; ++i, ++p_) {
            const char c = *p_;
            v <<= 4;
            if (c >= '0' && c <= '9') v |= static_cast<unsigned>(c - '0');
            else if (c >= 'a' && c <= 'f') v |= static_cast<unsigned>(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F') v |= static_cast<unsigned>(c - 'A' + 10);
            else fail("malformed \\u escape");
        }
        return v;
    }

    void escape()
    {
        available(12); // the longest escape, a surrogate pair; fewer only at the end of the input
        ++p_;          // the backslash
        if (p_ >= end_) fail("unterminated string");
        switch (*p_++) {
        case '"': case '\\': case '/': case 'b': case 'f': case 'n': case 'r': case 't': return;
        case 'u': break;
        default: fail("invalid escape");
        }
        const unsigned unit = hex4();
        if (unit >= 0xDC00 && unit <= 0xDFFF) fail("lone low surrogate");
        if (unit >= 0xD800 && unit <= 0xDBFF) {
            if (end_ - p_ < 2 || p_[0] != '\\' || p_[1] != 'u') fail("high surrogate without its low half");
            p_ += 2;
            const unsigned low = hex4();
            if (low < 0xDC00 || low > 0xDFFF) fail("high surrogate without its low half");
        }
    }

    void utf8()
    {
        available(4);
        const std::size_t length = text::validSequenceLength(std::string_view(p_, static_cast<std::size_t>(end_ - p_)));
        if (length == 0) fail("invalid UTF-8");
        p_ += length;
    }

    const char* p_ = nullptr;
    const char* end_ = nullptr;
    const char* base_ = nullptr;    // where offset_ points in the input
    std::size_t offset_ = 0;        // of base_ in the whole input
    const Reader* reader_ = nullptr;
    std::unique_ptr<char[]> buffer_;
    bool ended_ = false;
    bool capturing_ = false;
    const char* captureFrom_ = nullptr;
    std::string captured_;
};

} // namespace

std::map<std::string, std::string_view> members(std::string_view text, const std::vector<std::string_view>& wanted)
{
    Scanner scan(text);
    std::map<std::string, std::string_view> found;
    scan.document([&](int depth) {
        scan.object([&](const std::string& name) {
            if (std::find(wanted.begin(), wanted.end(), name) == wanted.end()) return void(scan.value(depth + 1));
            scan.beginCapture();
            scan.value(depth + 1);
            found[name] = scan.endCapture();
        });
    });
    return found;
}

std::map<std::string, Member> scan(std::string_view text, const std::vector<Wanted>& wanted)
{
    return scan(
        [&text](char* buffer, std::size_t capacity) {
            const std::size_t n = std::min(capacity, text.size());
            std::memcpy(buffer, text.data(), n);
            text.remove_prefix(n);
            return n;
        },
        wanted);
}

std::map<std::string, Member> scan(const Reader& read, const std::vector<Wanted>& wanted)
{
    Scanner scanner(read);
    std::map<std::string, Member> found;
    scanner.document([&](int depth) { scanner.wantedMembers(depth, wanted, found); });
    return found;
}

} // namespace skeldrin::json_scan
