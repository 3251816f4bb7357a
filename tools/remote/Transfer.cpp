#include "remote/Transfer.h"

#include <exception>
#include <thread>
#include <utility>

#include "base/Interrupt.h"
#include "base/Queue.h"

namespace kelvane::tool {

namespace {

constexpr std::size_t WAITING = 16; // pieces that were received and not yet written

} // namespace

void transfer(Channel& channel, const std::function<void(const Deliver& deliver)>& receive,
              const std::function<void(const Piece& piece)>& write)
{
    Queue<ReceivedPiece> queue(WAITING);
    std::thread receiver([&] {
        try {
            receive([&](ReceivedPiece received) {
                if (!queue.push(std::move(received))) {
                    throw Interrupted();
                }
            });
            queue.finish();
        } catch (...) {
            queue.finish(std::current_exception());
        }
    });
    std::exception_ptr failure;
    try {
        while (const auto received = queue.pop()) {
            write(received->piece());
        }
    } catch (...) {
        failure = std::current_exception();
    }
    queue.abandon();
    channel.stopWaiting(failure != nullptr);
    receiver.join();
    channel.stopWaiting(false);
    if (failure) {
        std::rethrow_exception(failure);
    }
}

} // namespace kelvane::tool
