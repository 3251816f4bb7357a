#include "lists/XmlList.h"

#include <expat.h>

#include <algorithm>
#include <array>
#include <exception>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include "base/Failure.h"
#include "base/Number.h"
#include "base/Text.h"

namespace kelvane::tool {

namespace {

constexpr std::size_t PIECE = 1 << 16;        // bytes that the parser is given at once
constexpr std::int64_t LONGEST_TAG = 1 << 20; // bytes; comments, too

// What a pool of thin devices can have, in sectors.
constexpr std::int64_t LEAST_THIN_BLOCK = 128;
constexpr std::int64_t LARGEST_THIN_BLOCK = 1 << 21;

using Attributes = std::map<std::string_view, std::string_view>;

// Hears of one element after the other. An entry is an element with numbers, or one of those that `thin_delta
// --verbose` groups by what they are.
class XmlReader {
public:
    XmlReader(const std::string& source, const ListOptions& options)
        : m_source(source)
        , m_options(options)
        , m_list {options.format.value_or(ListFormat::Thin), 0, {}}
    {
    }

    void enter(const std::string& name, const Attributes& attributes)
    {
        if (m_path.empty()) {
            enterRoot(name, attributes);
        } else if (m_list.format == ListFormat::Era) {
            require(m_path.size() == 1 && (name == "block" || name == "range"), name);
            takeEra(name, attributes);
        } else if (m_path.size() == 1) {
            require(name == "diff" && !m_hasDiff, name);
            m_hasDiff = true;
        } else {
            enterThin(name, attributes);
        }
        m_path.push_back(name);
    }

    void leave()
    {
        if (m_path.size() == 3 && m_group == m_number) {
            refuse("<" + m_path.back() + "> holds no range");
        }
        m_path.pop_back();
    }

    void takeText(std::string_view text) const
    {
        if (text.find_first_not_of(" \t\r\n") != std::string_view::npos) {
            refuse("text between its elements");
        }
    }

    [[noreturn]] void refuse(const std::string& cause) const
    {
        throw Failure(m_source, (m_number > 0 ? placeIn(m_list.format, m_number) + ": " : "") + cause);
    }

    RangeList done() &&
    {
        if (m_list.format == ListFormat::Thin && !m_hasDiff) {
            refuse("no <diff>");
        }
        return std::move(m_list);
    }

private:
    void require(bool isExpected, const std::string& name) const
    {
        if (!isExpected) {
            refuse("<" + printable(name, 100) + "> is unknown there");
        }
    }

    void enterRoot(const std::string& name, const Attributes& attributes)
    {
        const bool isThin = name == "superblock";
        if (!isThin && name != "blocks") {
            refuse("<" + printable(name, 100) + "> is no list of ranges");
        }
        m_list.format = isThin ? ListFormat::Thin : ListFormat::Era;
        if (m_list.format != m_options.format.value_or(m_list.format)) {
            refuse("<" + name + "> is of another format");
        }
        if (isThin) {
            const std::int64_t sectors = numberAt(attributes, "data_block_size");
            if (sectors < LEAST_THIN_BLOCK || sectors > LARGEST_THIN_BLOCK || sectors % LEAST_THIN_BLOCK != 0) {
                refuse("\"data_block_size\" is none of a pool: " + std::to_string(sectors));
            }
            m_list.sizeUnit = sectors * RangeList::SECTOR;
        } else if (m_options.eraBlockSize == 0) {
            refuse("the list of era_invalidate does not say how large its blocks are: name --era-block-size");
        } else {
            m_list.sizeUnit = m_options.eraBlockSize;
        }
    }

    // Elements of `diff`, and what these hold.
    void enterThin(const std::string& name, const Attributes& attributes)
    {
        static const std::set<std::string> KINDS = {"same", "different", "left_only", "right_only"};
        const bool isGroup = m_path.size() == 2 && attributes.empty();
        if (m_path.size() == 2) {
            require(KINDS.contains(name), name);
        } else {
            require(m_path.size() == 3 && m_isGroup && name == "range", name);
        }
        if (isGroup) {
            m_group = m_number;
        } else {
            ++m_number;
            const std::int64_t length = numberAt(attributes, "length");
            take(numberAt(attributes, "begin"), length, (m_path.size() == 2 ? name : m_path.back()) != "same");
        }
        m_isGroup = isGroup || m_path.size() > 2;
    }

    void takeEra(const std::string& name, const Attributes& attributes)
    {
        ++m_number;
        const bool isBlock = name == "block";
        const std::int64_t begin = numberAt(attributes, isBlock ? "block" : "begin");
        take(begin, isBlock ? 1 : numberAt(attributes, "end") - begin, true);
    }

    std::int64_t numberAt(const Attributes& attributes, std::string_view name) const
    {
        const auto found = attributes.find(name);
        if (found == attributes.end()) {
            refuse("no \"" + std::string(name) + "\"");
        }
        const auto number = parseNumber<std::int64_t>(found->second);
        if (!number) {
            refuse("\"" + std::string(name) + "\" is no number: " + printable(std::string(found->second), 100));
        }
        return *number;
    }

    void take(std::int64_t block, std::int64_t blocks, bool isListed)
    {
        const std::int64_t most = std::numeric_limits<std::int64_t>::max() / m_list.sizeUnit;
        if (blocks < 1 || !isPossible({block, blocks}) || block + blocks > most) {
            refuse("impossible range");
        }
        if (isListed) {
            m_list.entries.push_back({{block * m_list.sizeUnit, blocks * m_list.sizeUnit}, m_number});
        }
    }

    const std::string& m_source;
    const ListOptions& m_options;
    RangeList m_list;
    std::vector<std::string> m_path; // the elements around what comes next
    bool m_hasDiff = false;
    bool m_isGroup = false;    // what is open in `diff` has no numbers of its own
    std::int64_t m_group = -1; // entries before it
    std::int64_t m_number = 0;
};

// The parser, which no exception may pass through.
class XmlParser {
public:
    XmlParser(XmlReader& reader)
        : m_reader(reader)
        , m_parser(XML_ParserCreate(nullptr), XML_ParserFree)
    {
        if (!m_parser) {
            throw std::bad_alloc();
        }
        XML_SetUserData(m_parser.get(), this);
        XML_SetElementHandler(
            m_parser.get(),
            [](void* self, const char* name, const char** attributes) { of(self).enter(name, attributes); },
            [](void* self, const char*) { of(self).guard([&] { of(self).m_reader.leave(); }); });
        XML_SetCharacterDataHandler(m_parser.get(), [](void* self, const char* text, int length) {
            of(self).guard([&] { of(self).m_reader.takeText({text, static_cast<std::size_t>(length)}); });
        });
        XML_SetStartDoctypeDeclHandler(m_parser.get(), [](void* self, const char*, const char*, const char*, int) {
            of(self).guard([&] { of(self).m_reader.refuse("has a document type, which no list of ranges has"); });
        });
    }

    void parse(std::string_view text)
    {
        for (std::size_t at = 0, size = 0; at == 0 || at < text.size(); at += size) {
            size = std::min(PIECE, text.size() - at);
            const bool isLast = at + size == text.size();
            const auto status = XML_Parse(m_parser.get(), text.data() + at, static_cast<int>(size), isLast);
            const std::int64_t reached = XML_GetCurrentByteIndex(m_parser.get());
            if (m_failure) {
                std::rethrow_exception(m_failure);
            }
            if (status != XML_STATUS_OK) {
                m_reader.refuse("no XML from byte " + std::to_string(reached + 1)
                                + " on: " + XML_ErrorString(XML_GetErrorCode(m_parser.get())));
            }
            if (static_cast<std::int64_t>(at + size) - reached > LONGEST_TAG) {
                m_reader.refuse("a tag without end, at byte " + std::to_string(reached + 1));
            }
            if (isLast) {
                break;
            }
        }
    }

private:
    static XmlParser& of(void* self) { return *static_cast<XmlParser*>(self); }

    void enter(const char* name, const char** attributes)
    {
        guard([&] {
            Attributes all;
            for (; *attributes != nullptr; attributes += 2) {
                all.emplace(attributes[0], attributes[1]);
            }
            m_reader.enter(name, all);
        });
    }

    template <class Action>
    void guard(const Action& action)
    {
        try {
            if (!m_failure) { // some is still told after the parser was stopped
                action();
            }
        } catch (...) {
            m_failure = std::current_exception();
            XML_StopParser(m_parser.get(), XML_FALSE);
        }
    }

    XmlReader& m_reader;
    std::exception_ptr m_failure;
    std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&XML_ParserFree)> m_parser;
};

} // namespace

RangeList parseXmlList(std::string_view text, const std::string& source, const ListOptions& options)
{
    XmlReader reader(source, options);
    XmlParser(reader).parse(text);
    return std::move(reader).done();
}

} // namespace kelvane::tool
