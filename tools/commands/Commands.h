// The commands. Each one returns what it found, as text and as JSON, and throws when it fails.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "base/Range.h"
#include "hash_file/HashFile.h"
#include "image/Image.h"
#include "remote/RemoteSide.h"
#include "remote/Server.h"
#include "work/HashedImage.h"
#include "work/LocalSide.h"
#include "work/RangeList.h"

namespace kelvane::tool {

struct Outcome {
    bool good = true; // equal, or right
    std::string text;
    nlohmann::ordered_json json;
};

struct ImageArguments { // the image may be on another machine where a command says so
    std::string image;
    HashFileOptions hashFile;
};

struct PairArguments {
    ImageArguments first;
    ImageArguments second;
    RemoteOptions remote;
};

struct VerifyArguments {
    double share = 1;
    std::optional<std::uint64_t> seed;
    bool mark = false;
};

struct InvalidateArguments {
    std::string list; // a path, or "-" for standard input
    std::optional<ListFormat> format;
    MapEntries entries = MapEntries::Data;
};

struct SyncArguments {
    bool reread = false;
    bool isSparse = true;
};

// How the images that a command used were found in the end.
class Conclusions {
public:
    Conclusions(HashedImage& image, const Common& common, bool isAnsweredFor = false);
    Conclusions(Side& first, Side& second, const Common& common);

    // Whether nobody has changed them meanwhile, nor could have without a trace, as far as the user does not answer for
    // that.
    bool areSure() const { return areUnchanged() && openForWriting().empty(); }
    bool areUnchanged() const;

    std::string text() const;    // a line for each that was changed, or open for writing
    std::string remarks() const; // lines about what was checked
    nlohmann::ordered_json changed() const;
    nlohmann::ordered_json freshness() const; // a list where there are two

private:
    struct Ending {
        std::string name;
        Conclusion conclusion;
    };

    std::vector<Ending> openForWriting() const;

    std::vector<Ending> m_endings;
    bool m_isAnsweredFor;
};

// At most one of them on another machine.
struct Pair {
    Pair(const PairArguments& arguments, bool writesSecond, const Common& common);

    // Calls a command for them. When it fails, what was done on this machine is kept, and recorded.
    template <class Command>
    Outcome run(Command command) const
    {
        try {
            return command(*first, *second);
        } catch (...) {
            first->abandon();
            second->abandon();
            throw;
        }
    }

    std::unique_ptr<Side> first;
    std::unique_ptr<Side> second;
};

// Tells what went over the line, when one of them is on another machine.
void addLineTraffic(Outcome& outcome, const Pair& pair);

// The block size for both: what was asked for, or that of a hash file that is there; they must not differ.
std::uint32_t commonBlockSize(Side& first, Side& second, const HashFileOptions& options);

Outcome build(const ImageArguments& arguments, bool afterCrash, const Common& common);
Outcome info(const std::string& path);
Outcome hash(const ImageArguments& arguments, const std::optional<Range>& onDevice, const Common& common);
Outcome verify(const ImageArguments& arguments, const VerifyArguments& how, const Common& common);
Outcome invalidate(const ImageArguments& arguments, const InvalidateArguments& what, const Common& common);
Outcome diff(const PairArguments& arguments, const Common& common);
Outcome serve(const ServeArguments& arguments);
Outcome sync(const PairArguments& arguments, const SyncArguments& how, const Common& common);

} // namespace kelvane::tool
