// Integer and word conversions exactly as glibc's sscanf makes them, for
// the record and bunch-line patterns that are parsed by hand for speed.
#pragma once

#include <climits>
#include <cstddef>

namespace scanf_detail {

inline bool cSpace(unsigned char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// Digit values by character: 0-15 for hexadecimal digits, -1 for the rest.
struct DigitTable {
    signed char value[256];
    constexpr DigitTable() : value()
    {
        for (int c = 0; c < 256; ++c)
            value[c] = -1;
        for (int c = '0'; c <= '9'; ++c)
            value[c] = static_cast<signed char>(c - '0');
        for (int c = 'a'; c <= 'f'; ++c)
            value[c] = static_cast<signed char>(c - 'a' + 10);
        for (int c = 'A'; c <= 'F'; ++c)
            value[c] = static_cast<signed char>(c - 'A' + 10);
    }
};
inline constexpr DigitTable digits;

// A cursor over NUL-terminated text that converts integers and matches
// literal characters the way glibc's scanf does, including its odd corners:
// leading white space, a sign, a "0x" prefix that is consumed even when no
// digit follows, field widths that count the sign and the prefix, and
// out-of-range values clamped as strtoul/strtol clamp them.
class ScanfCursor {
public:
    explicit ScanfCursor(const char* text) : p_(text) {}

    // Values stored so far, or -1 when the input ran out before the first.
    int result() const { return inputFailed_ && stored_ == 0 ? -1 : stored_; }
    const char* position() const { return p_; }
    bool failed() const { return failed_; }

    // One integer conversion; `width` < 0 means none. Returns false when the
    // scan stops here.
    __attribute__((always_inline)) bool number(int width, bool hex)
    {
        if (!startConversion())
            return false;
        neg_ = false;
        mag_ = 0;
        overflow_ = false;
        int digitCount = 0;
        if (*p_ == '-' || *p_ == '+') {
            neg_ = *p_ == '-';
            ++p_;
            if (width > 0)
                --width;
        }
        if (width != 0 && *p_ == '0') {
            if (width > 0)
                --width;
            ++p_;
            digitCount = 1;
            if (hex && width != 0 && (*p_ == 'x' || *p_ == 'X')) {
                if (width > 0)
                    --width;
                ++p_;
            }
        }
        // A field without a width stops only at a non-digit (NUL included).
        const char* start = p_;
        int left = width; // below 0: no width, never reaches 0
        if (hex) {
            for (int v; left != 0 && (v = digits.value[static_cast<unsigned char>(*p_)]) >= 0; ++p_, --left) {
                if (mag_ >> 60 != 0)
                    overflow_ = true;
                else
                    mag_ = mag_ << 4 | static_cast<unsigned>(v);
            }
        } else {
            constexpr unsigned long long tenth = ULLONG_MAX / 10;
            for (unsigned v; left != 0 && (v = static_cast<unsigned char>(*p_) - '0') < 10; ++p_, --left) {
                if (mag_ > tenth || (mag_ == tenth && v > ULLONG_MAX % 10))
                    overflow_ = true;
                else
                    mag_ = mag_ * 10 + v;
            }
        }
        digitCount += static_cast<int>(p_ - start);
        if (digitCount == 0)
            return stop(false);
        return true;
    }

    // The last number as strtoull gives it.
    unsigned long long asUnsigned() const
    {
        if (overflow_)
            return ULLONG_MAX;
        return neg_ ? 0ULL - mag_ : mag_;
    }

    // The last number as strtoll gives it.
    long long asLongLong() const
    {
        if (!neg_)
            return (overflow_ || mag_ > static_cast<unsigned long long>(LLONG_MAX)) ? LLONG_MAX
                                                                                   : static_cast<long long>(mag_);
        if (overflow_ || mag_ > static_cast<unsigned long long>(LLONG_MAX) + 1ULL)
            return LLONG_MIN;
        return static_cast<long long>(0ULL - mag_);
    }

    // The last number as strtol gives it, truncated to int as scanf's %d stores it.
    int asInt() const
    {
        long value;
        if (!neg_)
            value = (overflow_ || mag_ > static_cast<unsigned long long>(LONG_MAX)) ? LONG_MAX
                                                                                     : static_cast<long>(mag_);
        else if (overflow_ || mag_ > static_cast<unsigned long long>(LONG_MAX) + 1ULL)
            value = LONG_MIN;
        else
            value = static_cast<long>(0ULL - mag_);
        return static_cast<int>(static_cast<unsigned int>(static_cast<unsigned long>(value)));
    }

    void stored() { ++stored_; }

    // "%<maxLen>s": skips white space, then takes up to maxLen characters up
    // to the next white space into `out` (maxLen + 1 bytes).
    bool word(int maxLen, char* out)
    {
        if (!startConversion())
            return false;
        int n = 0;
        while (n < maxLen && *p_ != '\0' && !cSpace(static_cast<unsigned char>(*p_)))
            out[n++] = *p_++;
        out[n] = '\0';
        return true;
    }

    bool literal(char c)
    {
        if (failed_)
            return false;
        if (*p_ == '\0')
            return stop(true);
        if (*p_ != c)
            return stop(false);
        ++p_;
        return true;
    }

private:
    // Skips the white space before a conversion; false when the scan has
    // stopped or the input ran out.
    bool startConversion()
    {
        if (failed_)
            return false;
        while (cSpace(static_cast<unsigned char>(*p_)))
            ++p_;
        return *p_ != '\0' || stop(true);
    }

    bool stop(bool inputFailure)
    {
        failed_ = true;
        inputFailed_ = inputFailure;
        return false;
    }

    const char* p_;
    int stored_ = 0;
    bool failed_ = false;
    bool inputFailed_ = false;
    bool neg_ = false;
    bool overflow_ = false;
    unsigned long long mag_ = 0;
};

} // namespace scanf_detail

using scanf_detail::ScanfCursor;
