#include "image/ImageState.h"

#include <chrono>
#include <thread>

#include "base/Interrupt.h"

namespace kelvane::tool {

ImageState stateOf(const Image& image)
{
    constexpr std::chrono::seconds LONGEST_WAIT(2);
    const auto end = std::chrono::steady_clock::now() + LONGEST_WAIT;
    for (;;) {
        const timespec clock = stampingClock();
        image.flush();
        ImageState state = {identityOf(image), marksOf(image), image.isNamed()};
        if (!state.marks.isMoving && !isRecent(state.marks.latest, clock)) {
            return state;
        }
        if (std::chrono::steady_clock::now() > end) {
            state.marks.doubt = "it changes all the time, or its times of change lie in the future";
            return state;
        }
        throwWhenInterrupted();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

} // namespace kelvane::tool
