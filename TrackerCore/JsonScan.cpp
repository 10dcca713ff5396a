#include "TrackerCore/JsonScan.h"

#include "TrackerCore/Json.h"
#include "TrackerCore/Text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>
#include <type_traits>

#if defined(__SSE2__) && !defined(SKELDRIN_PORTABLE_SCAN)
#include <emmintrin.h>
#endif

namespace skeldrin::json_scan {
namespace {

constexpr int kMaxDepth = 512;
// Small enough to stay in the cache and to be touched once; fresh pages cost more than the scan.
constexpr std::size_t kBufferSize = 64 * 1024;

// The bytes that may follow a backslash: 1 for the one-letter escapes, 2 for 'u'.
constexpr std::array<unsigned char, 256> kEscapeKind = [] {
    std::array<unsigned char, 256> kind{};
    for (const unsigned char c : std::string_view("\"\\/bfnrt"))
        kind[c] = 1;
    kind['u'] = 2;
    return kind;
}();

// For each UTF-8 lead byte: the length of its sequence (0: never a lead) and the range of its second byte.
struct Lead {
    unsigned char length, low, high;
};
constexpr std::array<Lead, 256> kLeads = [] {
    std::array<Lead, 256> leads{};
    for (unsigned b = 0xC2; b <= 0xF4; ++b)
        leads[b] = {static_cast<unsigned char>(b < 0xE0 ? 2 : b < 0xF0 ? 3 : 4), 0x80, 0xBF};
    leads[0xE0].low = 0xA0;  // overlong
    leads[0xED].high = 0x9F; // surrogates
    leads[0xF0].low = 0x90;  // overlong
    leads[0xF4].high = 0x8F; // above U+10FFFF
    return leads;
}();

// The value of a hexadecimal digit, or -1.
constexpr std::array<signed char, 256> kHexValue = [] {
    std::array<signed char, 256> value{};
    value.fill(-1);
    for (int i = 0; i < 10; ++i)
        value['0' + i] = static_cast<signed char>(i);
    for (int i = 0; i < 6; ++i)
        value['a' + i] = value['A' + i] = static_cast<signed char>(10 + i);
    return value;
}();

// Whether the four bytes after "\u" are hexadecimal digits that name no surrogate (pairs take the
// bytewise path).
inline bool plainUnicodeEscape(const unsigned char* hex)
{
    int unit = 0;
    for (int i = 0; i < 4; ++i) {
        const int digit = kHexValue[hex[i]];
        if (digit < 0) return false;
        unit = unit << 4 | digit;
    }
    return unit < 0xD800 || unit > 0xDFFF;
}

inline std::uint64_t lowBits(int n)
{
    return n >= 64 ? ~0ULL : (1ULL << n) - 1;
}

// Where in 64 bytes the bytes are that a string's text cannot take as they are.
struct Masks {
    std::uint64_t quotes = 0, backslashes = 0, controls = 0;
    std::uint64_t leads = 0, continuations = 0; // UTF-8: 11xxxxxx, 10xxxxxx
};

#if defined(__SSE2__) && !defined(SKELDRIN_PORTABLE_SCAN)
// Sixteen bytes a step where every x86-64 processor can.
inline Masks blockMasks(const unsigned char* bytes)
{
    Masks masks;
    const __m128i quote = _mm_set1_epi8('"'), backslash = _mm_set1_epi8('\\'), below = _mm_set1_epi8(0x1F);
    for (int i = 0; i < 4; ++i) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + 16 * i));
        const auto mask = [](__m128i flags) {
            return static_cast<std::uint64_t>(_mm_movemask_epi8(flags) & 0xFFFF);
        };
        const std::uint64_t high = mask(v), second = mask(_mm_add_epi8(v, v)); // bit 7, bit 6
        const int shift = 16 * i;
        masks.quotes |= mask(_mm_cmpeq_epi8(v, quote)) << shift;
        masks.backslashes |= mask(_mm_cmpeq_epi8(v, backslash)) << shift;
        // v < 0x20 exactly when subtracting 0x1F, saturating at zero, leaves zero.
        masks.controls |= mask(_mm_cmpeq_epi8(_mm_subs_epu8(v, below), _mm_setzero_si128())) << shift;
        masks.leads |= (high & second) << shift;
        masks.continuations |= (high & ~second) << shift;
    }
    return masks;
}
#else
// Eight bytes a step anywhere else.
// Each test leaves the high bit of each matching byte, exactly (no borrow crosses bytes).
constexpr std::uint64_t kOnes = 0x0101010101010101ULL, kHighs = 0x8080808080808080ULL, kLow7 = ~kHighs;
inline std::uint64_t bytesEqual(std::uint64_t word, unsigned char c)
{
    const std::uint64_t t = word ^ (kOnes * c);
    return ~(((t & kLow7) + kLow7) | t) & kHighs;
}
inline std::uint64_t bytesBelowSpace(std::uint64_t word)
{
    return ~(((word & kLow7) + kOnes * (0x80 - 0x20)) | word) & kHighs;
}
// The high bits of the eight bytes gathered into the low eight bits, byte i at bit i.
inline std::uint64_t gather(std::uint64_t highs)
{
    return ((highs >> 7) * 0x0102040810204080ULL) >> 56;
}

inline Masks blockMasks(const unsigned char* bytes)
{
    Masks masks;
    for (int i = 0; i < 8; ++i) {
        std::uint64_t word;
        std::memcpy(&word, bytes + 8 * i, 8);
        const std::uint64_t high = word & kHighs, second = (word << 1) & kHighs;
        const int shift = 8 * i;
        masks.quotes |= gather(bytesEqual(word, '"')) << shift;
        masks.backslashes |= gather(bytesEqual(word, '\\')) << shift;
        masks.controls |= gather(bytesBelowSpace(word)) << shift;
        masks.leads |= gather(high & second) << shift;
        masks.continuations |= gather(high & ~second) << shift;
    }
    return masks;
}
#endif

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
                            std::to_string(position()));
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
            if (end_ - p_ < kBlockReach) refill(kBlockReach);
            if (end_ - p_ >= kBlockReach) {
                const Block result = block(escaped);
                if (result == Block::ended) return escaped;
                if (result == Block::accepted) continue;
            }
            // Byte by byte over what the block held (or all that is left near the input's end), which
            // also gives the exact error.
            const std::size_t until = position() + 64;
            while (position() < until) {
                if (p_ == end_ && !refill(1)) fail("unterminated string");
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
                } else if (c >= 0x80) {
                    utf8();
                } else {
                    ++p_;
                }
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
    // A block's 64 bytes and the longest escape or sequence that starts in it.
    static constexpr std::ptrdiff_t kBlockReach = 80;
    enum class Block { accepted, ended, unclear };

    // Checks the next 64 bytes of a string's text (p_ is not inside an escape or a sequence) all at once,
    // as bit masks of their positions, so that no byte waits on the one before it: tool outputs carry a
    // quote, backslash or non-ASCII byte every few bytes. Moves p_ past what it accepts, up to a point
    // outside any escape or sequence; anything doubtful is left unclear, with p_ unmoved, for the
    // bytewise path.
    Block block(bool& escaped)
    {
        const auto* const bytes = reinterpret_cast<const unsigned char*>(p_);
        const Masks masks = blockMasks(bytes);
        const std::uint64_t quotes = masks.quotes, backslashes = masks.backslashes, controls = masks.controls,
                            leads = masks.leads, continuations = masks.continuations;
        // A run of backslashes escapes the byte after it when its length is odd. Adding each run to the
        // odd positions carries out of the run exactly when it starts on an even one and is odd, or
        // starts on an odd one and is even.
        constexpr std::uint64_t odd = 0xAAAAAAAAAAAAAAAAULL;
        const std::uint64_t runCodes = (((backslashes << 1) | odd) - backslashes) ^ odd;
        const std::uint64_t escapedBytes = runCodes ^ backslashes, escapeStarts = runCodes & backslashes;

        const std::uint64_t closing = quotes & ~escapedBytes;
        const int end = closing ? std::countr_zero(closing) : 64;
        int advance = end < 64 || !(escapeStarts >> 63) ? end : 63;
        if (controls & lowBits(end)) return Block::unclear;
        for (std::uint64_t m = escapedBytes & lowBits(end); m; m &= m - 1) {
            const int at = std::countr_zero(m);
            const unsigned char kind = kEscapeKind[bytes[at]];
            if (kind == 0 || (kind == 2 && !plainUnicodeEscape(bytes + at + 1))) return Block::unclear;
        }
        bool bad = false;
        std::uint64_t claimed = 0; // the continuation bytes the leads call for
        for (std::uint64_t m = leads & lowBits(end); m; m &= m - 1) {
            const int at = std::countr_zero(m);
            const Lead lead = kLeads[bytes[at]];
            if (lead.length == 0) return Block::unclear;
            if (at + lead.length > advance) {
                if (end < 64) return Block::unclear; // cut by the closing quote
                advance = at;                        // finished by the next block
                break;
            }
            bad |= bytes[at + 1] < lead.low || bytes[at + 1] > lead.high;
            claimed |= ((1ULL << lead.length) - 2) << at;
        }
        if (bad || ((continuations ^ claimed) & lowBits(advance))) return Block::unclear;
        escaped = escaped || (backslashes & lowBits(advance));
        if (end < 64) {
            p_ += end + 1;
            return Block::ended;
        }
        p_ += advance;
        return Block::accepted;
    }

    std::size_t position() const { return offset_ + static_cast<std::size_t>(p_ - base_); }

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
