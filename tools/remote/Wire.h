// The fields of a frame: little-endian integers, and strings behind their length.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "base/Range.h"

namespace kelvane::tool {

// The other side does not keep to the protocol.
class ProtocolError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

template <class Value>
Value atMost(Value value, Value most, const char* what)
{
    if (value > most) {
        throw ProtocolError(std::string(what) + ": " + std::to_string(value));
    }
    return value;
}

class FieldWriter {
public:
    FieldWriter& u8(std::uint8_t value) { return number(value, 1); }
    FieldWriter& flag(bool value) { return u8(value ? 1 : 0); }
    FieldWriter& u32(std::uint32_t value) { return number(value, 4); }
    FieldWriter& i64(std::int64_t value) { return number(static_cast<std::uint64_t>(value), 8); }

    FieldWriter& string(std::string_view value)
    {
        u32(static_cast<std::uint32_t>(value.size()));
        return bytes(value.data(), value.size());
    }

    FieldWriter& bytes(const void* data, std::size_t size)
    {
        m_bytes.append(static_cast<const char*>(data), size);
        return *this;
    }

    const std::string& done() const { return m_bytes; }

private:
    FieldWriter& number(std::uint64_t value, int size)
    {
        for (int i = 0; i < size; ++i) {
            m_bytes += static_cast<char>(value >> (8 * i));
        }
        return *this;
    }

    std::string m_bytes;
};

// Fails when a field is not there, or is not what it may be.
class FieldReader {
public:
    explicit FieldReader(std::string_view bytes)
        : m_rest(bytes)
    {
    }

    std::uint8_t u8() { return static_cast<std::uint8_t>(number(1)); }
    std::uint32_t u32() { return static_cast<std::uint32_t>(number(4)); }

    // At least 0 and at most `most`.
    std::int64_t i64(std::int64_t most = std::numeric_limits<std::int64_t>::max())
    {
        const std::uint64_t value = number(8);
        if (value > static_cast<std::uint64_t>(most)) {
            throw ProtocolError("a number is too large: " + std::to_string(value));
        }
        return static_cast<std::int64_t>(value);
    }

    bool flag()
    {
        const std::uint8_t value = u8();
        if (value > 1) {
            throw ProtocolError("a flag is " + std::to_string(value));
        }
        return value == 1;
    }

    // That ends at `end` at the latest.
    Range range(std::int64_t end = std::numeric_limits<std::int64_t>::max())
    {
        const std::int64_t offset = i64(end);
        return {offset, i64(end - offset)};
    }

    std::vector<unsigned char> digest()
    {
        constexpr std::size_t SIZE = 32;
        const std::string_view digits = bytes(SIZE);
        return {digits.begin(), digits.end()};
    }

    std::string string() { return std::string(bytes(u32())); }

    std::string_view bytes(std::size_t size)
    {
        if (size > m_rest.size()) {
            throw ProtocolError("a frame is too short");
        }
        const std::string_view taken = m_rest.substr(0, size);
        m_rest.remove_prefix(size);
        return taken;
    }

    std::string_view rest() { return bytes(m_rest.size()); }

    void end() const
    {
        if (!m_rest.empty()) {
            throw ProtocolError("a frame is too long");
        }
    }

private:
    std::uint64_t number(std::size_t size)
    {
        std::uint64_t value = 0;
        const std::string_view digits = bytes(size);
        for (std::size_t i = size; i > 0; --i) {
            value = value << 8 | static_cast<unsigned char>(digits[i - 1]);
        }
        return value;
    }

    std::string_view m_rest;
};

} // namespace kelvane::tool
