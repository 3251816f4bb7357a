// What another machine, or another program's list of ranges, could say.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kelvane::testing {

// The first byte of an input; what follows it is of this kind. Stored inputs hold these numbers: a new one comes last.
enum class Kind : std::uint8_t {
    Hello,
    Open,
    Start,
    Started,
    Opening,
    AskNodes,
    AskBytes,
    Digests,
    Read, // the ranges of Announce, too
    Data,
    List,
    Bitmap,
    Written,
    End,
    Concluded,
    Stream, // bytes as they come from the line
    Frames, // what frames are made of, with their checks: for each type, length and payload; from type 128 on, of the
            // type that is 128 less, a u32 in between: how much longer the frame says to be
    StartWriting
};

constexpr std::size_t KINDS = 18;

enum class Verdict { NoKind, Refused, Understood };

// Everything is taken, and comes out as it went in, or ends with the failure that it is to end with; what goes wrong
// ends with another one.
Verdict checkMessage(const std::string& input);

// The bytes of the frames that such an input stands for.
std::string streamOf(const std::string& frames);

} // namespace kelvane::testing
