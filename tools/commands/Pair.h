// The two images of a command.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "commands/ImageArguments.h"
#include "remote/RemoteSide.h"
#include "work/Common.h"
#include "work/HashedImage.h"
#include "work/Side.h"

namespace kelvane::tool {

struct PairArguments {
    ImageArguments first;
    ImageArguments second;
    RemoteOptions remote;
};

// What went over the line to the one of them that is on another machine.
struct PairTraffic {
    std::string side;
    LineTraffic line;
};

// At most one of them on another machine.
struct Pair {
    // `line`: the connection for this one and the next; see RemoteSide.
    Pair(const PairArguments& arguments, bool writesSecond, const Common& common, Trust trustInSecond,
         RemoteSide::Line* line = nullptr);

    // Calls a command for them. When it fails, what was done on this machine is kept, and recorded.
    template <class Command>
    auto run(Command command) const
    {
        try {
            return command(*first, *second);
        } catch (...) {
            first->abandon();
            second->abandon();
            throw;
        }
    }

    std::optional<PairTraffic> traffic() const; // nothing when both are here

    // Forgets what is known of the first image, once its hashes are open, as a list says. Fails when it is not here.
    void whenFirstIsOpened(std::function<void(HashedImage& hashed)> work) const;

    const Common commonOfSecond;
    std::unique_ptr<Side> first;
    std::unique_ptr<Side> second;
};

// The block size for both: what was asked for, or that of a hash file that is there; they must not differ.
std::uint32_t chooseBlockSize(Side& first, Side& second, const HashFileOptions& options);

} // namespace kelvane::tool
