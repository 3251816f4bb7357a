#include "work/Pump.h"

#include <exception>
#include <thread>
#include <utility>

#include "base/Interrupt.h"
#include "base/Queue.h"

namespace kelvane::tool {

namespace {

constexpr std::size_t WAITING = 8; // pieces

} // namespace

void pump(const std::function<void(const Sink& sink)>& produce, const Sink& consume, const std::function<void()>& stop)
{
    Queue<Piece> queue(WAITING);
    std::thread producer([&] {
        try {
            produce([&](Piece piece) {
                if (!queue.push(std::move(piece))) {
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
        while (auto piece = queue.pop()) {
            consume(std::move(*piece));
        }
    } catch (...) {
        failure = std::current_exception();
        stop();
    }
    queue.abandon();
    producer.join();
    if (failure) {
        std::rethrow_exception(failure);
    }
}

} // namespace kelvane::tool
