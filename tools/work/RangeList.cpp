#include "work/RangeList.h"

#include <limits>
#include <nlohmann/json.hpp>
#include <string_view>

#include "base/Failure.h"
#include "base/Number.h"
#include "terminal/Text.h"

namespace kelvane::tool {

namespace {

using Json = nlohmann::json;

constexpr const char* UNDECIDED_LIST = "diff was undecided: more may differ than it lists";

bool isPossible(const Range& range)
{
    return range.offset >= 0 && range.length >= 0
        && range.length <= std::numeric_limits<std::int64_t>::max() - range.offset;
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

RangeList parseLines(std::string_view text, const std::string& source)
{
    RangeList list {ListFormat::Lines, {}};
    for (std::int64_t number = 1; !text.empty(); ++number) {
        const auto refuse
            = [&](const std::string& cause) { throw Failure(source, placeIn(list.format, number) + ": " + cause); };
        const std::size_t end = text.find('\n');
        if (end == std::string_view::npos) {
            refuse("has no line end: the list may have been cut off");
        }
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end + 1);
        if (line.starts_with(std::string(RangeList::REMARK) + RangeList::UNDECIDED)) {
            refuse(UNDECIDED_LIST);
        }
        if (line.empty() || line.starts_with('#')) {
            continue;
        }
        const std::optional<Range> range = rangeOf(line);
        if (!range) {
            refuse("not a range like \"4096 + 8192\": " + printable(std::string(line.substr(0, 101)), 100));
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
