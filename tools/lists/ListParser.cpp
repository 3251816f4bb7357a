#include "lists/ListParser.h"

#include <string_view>
#include <utility>

#include "base/Failure.h"
#include "base/Number.h"
#include "base/Text.h"
#include "lists/JsonList.h"
#include "lists/XmlList.h"

namespace kelvane::tool {

namespace {

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
    RangeList list {ListFormat::Lines, 1, {}};
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
            refuse(RangeList::UNDECIDED_LIST);
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

// By the first entry, as these programs print it.
ListFormat jsonFormatOf(std::string_view text)
{
    const std::string_view entry = text.substr(0, text.find('}'));
    const auto has = [&](const char* key) { return entry.find(key) != std::string_view::npos; };
    return text[0] == '{'   ? ListFormat::Diff
        : has("\"start\"")  ? ListFormat::Map
        : has("\"exists\"") ? ListFormat::Rbd
                            : ListFormat::Bitmap;
}

} // namespace

RangeList parseRangeList(const std::string& text, const std::string& source, const ListOptions& options)
{
    const std::size_t start = std::min(text.find_first_not_of(" \t\r\n"), text.size());
    const std::string_view content = std::string_view(text).substr(start);
    const bool looksLikeJson = content.starts_with('{') || content.starts_with('[');
    const auto format = options.format;
    if (format ? isXml(*format) : content.starts_with('<')) {
        return parseXmlList(text, source, options);
    }
    if (format ? *format == ListFormat::Lines : !looksLikeJson) {
        return parseLines(text, source);
    }
    return parseJsonList(text, source, format ? *format : jsonFormatOf(content), options.entries);
}

} // namespace kelvane::tool
