#include "work/RangeList.h"

#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string_view>

#include "base/Failure.h"
#include "base/Number.h"

namespace kelvane::tool {

namespace {

using Json = nlohmann::json;

bool isPossible(const Range& range)
{
    return range.offset >= 0 && range.length >= 0
        && range.length <= std::numeric_limits<std::int64_t>::max() - range.offset;
}

// What `diff` says beside the ranges.
bool isRemark(std::string_view line)
{
    return line.empty() || line.starts_with('#') || line.starts_with("sizes: ") || line.starts_with("equal; ")
        || line.starts_with("different: ") || line.ends_with(" repaired") || line.ends_with(" round trip")
        || line.ends_with(" round trips");
}

std::optional<Range> rangeOf(std::string_view line)
{
    const std::size_t digits = std::min(line.find_first_not_of("0123456789"), line.size());
    const std::string_view rest = line.substr(digits);
    const std::size_t gap = rest.starts_with(" + ") ? 3 : rest.find_first_not_of(" \t") == 1 ? 1 : 0;
    const auto offset = parseNumber<std::int64_t>(line.substr(0, digits));
    const auto length = parseNumber<std::int64_t>(rest.substr(gap));
    const bool isGood = offset && gap > 0 && length && isPossible({*offset, *length});
    return isGood ? std::optional(Range {*offset, *length}) : std::nullopt;
}

RangeList parseLines(const std::string& text, const std::string& source)
{
    RangeList list {ListFormat::Lines, {}};
    std::istringstream lines(text);
    std::int64_t number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        if (isRemark(line)) {
            continue;
        }
        const std::optional<Range> range = rangeOf(line);
        if (!range) {
            throw Failure(source,
                          placeIn(list.format, number) + ": not a range like \"4096 + 8192\": " + line.substr(0, 100));
        }
        list.entries.push_back({*range, number});
    }
    return list;
}

const Json& arrayOf(const Json& document, ListFormat format)
{
    return format == ListFormat::Diff ? document.at("differing") : document;
}

bool isListed(const Json& entry, ListFormat format, MapEntries entries)
{
    if (format == ListFormat::Bitmap) {
        return entry.at("type").get<std::uint64_t>() % 2 == 1;
    }
    if (format == ListFormat::Map) {
        const bool isData = entry.at("data").get<bool>();
        const bool isZero = entry.at("zero").get<bool>();
        return entries == MapEntries::All || (entries == MapEntries::Data ? isData : isZero);
    }
    return true;
}

std::int64_t numberAt(const Json& entry, const char* name)
{
    const Json& value = entry.at(name);
    if (!value.is_number_integer()
        || (value.is_number_unsigned()
            && value.get<std::uint64_t>() > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))) {
        throw std::invalid_argument(std::string(name) + " is no number of bytes");
    }
    return value.get<std::int64_t>();
}

RangeList parseEntries(const Json& document, const std::string& source, ListFormat format, MapEntries entries)
{
    RangeList list {format, {}};
    std::int64_t number = 0;
    for (const Json& entry : arrayOf(document, format)) {
        ++number;
        try {
            const Range range
                = {numberAt(entry, format == ListFormat::Map ? "start" : "offset"), numberAt(entry, "length")};
            if (!isPossible(range)) {
                throw std::invalid_argument("impossible range");
            }
            if (isListed(entry, format, entries)) {
                list.entries.push_back({range, number});
            }
        } catch (const std::exception& error) {
            throw Failure(source, placeIn(format, number) + ": " + error.what());
        }
    }
    return list;
}

ListFormat formatOf(const Json& document)
{
    if (document.is_object()) {
        return ListFormat::Diff;
    }
    return !document.empty() && document[0].is_object() && document[0].contains("start") ? ListFormat::Map
                                                                                         : ListFormat::Bitmap;
}

} // namespace

std::string placeIn(ListFormat format, std::int64_t number)
{
    return (format == ListFormat::Lines ? "line " : "entry ") + std::to_string(number);
}

RangeList parseRangeList(const std::string& text, const std::string& source, std::optional<ListFormat> format,
                         MapEntries entries)
{
    const std::size_t start = text.find_first_not_of(" \t\r\n");
    const bool looksLikeJson = start != std::string::npos && (text[start] == '{' || text[start] == '[');
    if (format ? *format == ListFormat::Lines : !looksLikeJson) {
        return parseLines(text, source);
    }
    try {
        const Json document = Json::parse(text);
        const ListFormat used = format.value_or(formatOf(document));
        if (!(used == ListFormat::Diff ? document.at("differing") : document).is_array()) {
            throw std::invalid_argument("no list of ranges");
        }
        return parseEntries(document, source, used, entries);
    } catch (const Failure&) {
        throw;
    } catch (const std::exception& error) {
        throw Failure(source, error.what());
    }
}

} // namespace kelvane::tool
