#include <algorithm>

#include "BlockHashStore/Internals.h"

namespace kelvane {

void BlockHashStore::for_each_unknown_range(kelvane_off_t offset, kelvane_buf_len_t length, const RangeFunc& onRange)
{
    emptyWhenGivenUp([&] {
        throwWithinDataCallback();
        const Span span = spanOf("for_each_unknown_range", offset, length);
        Stretches unknown(*this, span, onRange);
        const auto look = [&](const Window& window) {
            for (kelvane_ssize_t position = window.from; position < window.to; ++position) {
                window.isKnown(position) ? unknown.report() : unknown.add(position);
            }
        };
        throughWindows(span, span.firstFullPosition, span.endFullPosition(), {}, look);
        unknown.report();
    });
}

} // namespace kelvane
