#include "lists/JsonList.h"

#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>
#include <variant>

#include "base/Failure.h"
#include "base/Text.h"

namespace kelvane::tool {

namespace {

const std::set<std::string>& keysOf(ListFormat format)
{
    static const std::map<ListFormat, std::set<std::string>> KEYS = {
        {ListFormat::Diff, {"offset", "length"}},
        {ListFormat::Rbd, {"offset", "length", "exists"}},
        {ListFormat::Bitmap, {"offset", "length", "type", "description"}},
        {ListFormat::Map, {"start", "length", "depth", "present", "zero", "data", "compressed", "offset", "filename"}}};
    return KEYS.at(format);
}

// Takes in JSON piece by piece, for a tree of it takes many times the memory of its text. What stands around the list
// of `diff` is skipped, but for what says whether all is listed.
class JsonReader final : public nlohmann::json_sax<nlohmann::json> {
public:
    JsonReader(const std::string& source, ListFormat format, MapEntries entries)
        : m_source(source)
        , m_entries(entries)
        , m_keys(keysOf(format))
        , m_listName(format == ListFormat::Diff ? "differing" : "")
        , m_listDepth(format == ListFormat::Diff ? 2 : 1)
        , m_list {format, format == ListFormat::Diff ? 1 : RangeList::SECTOR, {}}
    {
    }

    RangeList read(const std::string& text) &&
    {
        nlohmann::json::sax_parse(text, this);
        if (m_list.format == ListFormat::Diff && !m_members.contains(m_listName)) {
            refuse("no \"differing\"");
        }
        return std::move(m_list);
    }

    bool null() override { return take({}); }
    bool boolean(bool flag) override { return take(flag); }
    bool number_integer(std::int64_t /*negative*/) override { return take({}); }
    bool number_unsigned(std::uint64_t number) override { return take(number); }
    bool number_float(double /*too large a number, too*/, const std::string& /*text*/) override { return take({}); }
    bool string(std::string& text) override { return take(std::move(text)); }
    bool binary(nlohmann::json::binary_t& /*bytes*/) override { return take({}); }
    bool start_array(std::size_t /*size*/) override { return enter(Array()); }
    bool start_object(std::size_t /*size*/) override { return enter(Object()); }

    bool key(std::string& name) override
    {
        if (m_depth == m_listDepth + 1 && m_isInList) {
            if (!m_keys.contains(name)) {
                refuse("\"" + printable(name, 100) + "\" is unknown");
            }
            if (!m_values.try_emplace(name).second) {
                refuse("\"" + name + "\" stands there twice");
            }
            m_key = std::move(name);
        } else if (m_depth == 1) {
            m_member = std::move(name);
            const bool counts = m_member == m_listName || m_member == VERDICT || m_member == CHANGED;
            if (counts && !m_members.insert(m_member).second) {
                refuse("\"" + m_member + "\" stands there twice");
            }
        }
        return true;
    }

    bool end_array() override { return leave(); }

    bool end_object() override
    {
        leave();
        if (m_isInList && m_depth == m_listDepth) {
            takeEntry();
        }
        return true;
    }

    bool parse_error(std::size_t position, const std::string& /*token*/,
                     const nlohmann::json::exception& /*error*/) override
    {
        refuse("no JSON from byte " + std::to_string(position) + " on");
    }

private:
    struct Array { };
    struct Object { };
    using Value = std::variant<std::monostate, bool, std::uint64_t, std::string, Array, Object>; // nothing: any other

    static constexpr int DEEPEST = 16;
    static constexpr const char* VERDICT = "verdict";
    static constexpr const char* CHANGED = "changedMeanwhile";

    [[noreturn]] void refuse(const std::string& cause) const
    {
        throw Failure(m_source, (m_isInList && m_number > 0 ? placeIn(m_list.format, m_number) + ": " : "") + cause);
    }

    template <class Kind>
    const Kind& require(const Value& value, const std::string& otherwise) const
    {
        const Kind* const found = std::get_if<Kind>(&value);
        if (found == nullptr) {
            refuse(otherwise);
        }
        return *found;
    }

    bool enter(const Value& value)
    {
        take(value);
        if (++m_depth > DEEPEST) {
            refuse("nested too deep for a list of ranges");
        }
        return true;
    }

    bool leave()
    {
        --m_depth;
        m_isInList = m_isInList && m_depth >= m_listDepth;
        return true;
    }

    bool take(const Value& value)
    {
        if (m_isInList && m_depth == m_listDepth) {
            ++m_number;
            m_values.clear();
            require<Object>(value, "is no range");
        } else if (m_isInList && m_depth == m_listDepth + 1) {
            m_values[m_key] = value;
        } else if (m_depth + 1 == m_listDepth && m_member == m_listName) {
            require<Array>(value, "no list of ranges");
            m_isInList = true;
        } else {
            takeAround(value);
        }
        return true;
    }

    void takeAround(const Value& value) const
    {
        if (m_depth == 0) {
            require<Object>(value, "no JSON of diff");
        } else if (m_depth == 1 && m_member == VERDICT) {
            const auto& verdict = require<std::string>(value, "\"verdict\" is no text");
            if (verdict != "equal" && verdict != "different") {
                refuse(verdict == RangeList::UNDECIDED ? RangeList::UNDECIDED_LIST : "\"verdict\" is not one of diff");
            }
        } else if (m_depth == 1 && m_member == CHANGED) {
            require<Array>(value, "\"changedMeanwhile\" is no list");
        } else if (m_depth == 2 && m_member == CHANGED) {
            refuse(RangeList::UNDECIDED_LIST);
        }
    }

    template <class Kind>
    const Kind& at(const std::string& name, const std::string& otherwise) const
    {
        const auto found = m_values.find(name);
        if (found == m_values.end()) {
            refuse("no \"" + name + "\"");
        }
        return require<Kind>(found->second, "\"" + name + "\" is " + otherwise);
    }

    std::int64_t bytesAt(const std::string& name) const
    {
        const auto bytes = at<std::uint64_t>(name, "no number of bytes");
        if (!std::in_range<std::int64_t>(bytes)) {
            refuse("\"" + name + "\" is too large");
        }
        return static_cast<std::int64_t>(bytes);
    }

    bool isListed() const
    {
        if (m_list.format == ListFormat::Bitmap) {
            return at<std::uint64_t>("type", "no whole number") % 2 == 1;
        }
        if (m_list.format == ListFormat::Map) {
            const bool isData = at<bool>("data", "neither true nor false");
            const bool isZero = at<bool>("zero", "neither true nor false");
            return m_entries == MapEntries::All || (m_entries == MapEntries::Data ? isData : isZero);
        }
        if (m_list.format == ListFormat::Rbd) { // what is no longer there has changed as well
            const auto& exists = at<std::string>("exists", "no text");
            if (exists != "true" && exists != "false") {
                refuse("\"exists\" is neither \"true\" nor \"false\"");
            }
        }
        return true;
    }

    void takeEntry()
    {
        const Range range = {bytesAt(m_list.format == ListFormat::Map ? "start" : "offset"), bytesAt("length")};
        if (!isPossible(range)) {
            refuse("impossible range");
        }
        if (isListed()) {
            m_list.entries.push_back({range, m_number});
        }
    }

    const std::string& m_source;
    const MapEntries m_entries;
    const std::set<std::string>& m_keys;
    const std::string m_listName; // among the members of the document; empty for the document itself
    const int m_listDepth;
    RangeList m_list;
    int m_depth = 0; // arrays and objects around what comes next
    std::string m_member;
    std::set<std::string> m_members; // that may stand there once
    bool m_isInList = false;
    std::int64_t m_number = 0;
    std::string m_key;
    std::map<std::string, Value> m_values; // of an entry
};

} // namespace

RangeList parseJsonList(const std::string& text, const std::string& source, ListFormat format, MapEntries entries)
{
    return JsonReader(source, format, entries).read(text);
}

} // namespace kelvane::tool
