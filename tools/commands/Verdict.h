// What a command answers.
#pragma once

namespace kelvane::tool {

// `Undecided`: nobody knows which moment of an image the answer would be of.
enum class Verdict { Done, Equal, Different, Good, Wrong, Undecided };

inline bool isGood(Verdict verdict)
{
    return verdict == Verdict::Done || verdict == Verdict::Equal || verdict == Verdict::Good;
}

} // namespace kelvane::tool
