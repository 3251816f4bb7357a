// Could anybody be writing to an image just now without a trace?
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/Descriptor.h"
#include "image/BlockDevice.h"

namespace kelvane::tool {

struct Program {
    std::int64_t process; // 0 for the system, whose loop device the command is then
    std::string command;
};

std::string namesOf(const std::vector<Program>& programs); // "dd (17), cp (18)"

// A change leaves a trace when it begins; its bytes may come later, as long as somebody has the image open for writing
// or mapped. Of a block device the system counts what has come.
struct Writers {
    bool areSome = false;
    std::vector<Program> programs; // those of them that can be seen

    std::string doubt; // why there could be some all the same; empty when there could not
};

// At this moment, by the file that holds the image's bytes, if there is one, and the device by which they are reached,
// if they are, and whether nobody else uses that. What began before is over when there are none; what begins later
// leaves a trace. The image must not be open for writing by this program.
Writers writersOf(const Descriptor& bytes, const BlockDevice* device, bool isClaimed);

// While this program writes to a file, the stamps of that do not tell whether another one does, too. As long as this
// lives, the system tells when another process opens the file. One at a time.
class ExclusiveUse {
public:
    // The system does not do so of block devices, of files that another process has open, and of those that belong to
    // another user.
    explicit ExclusiveUse(const Descriptor& file);
    ~ExclusiveUse();
    ExclusiveUse(const ExclusiveUse&) = delete;
    ExclusiveUse& operator=(const ExclusiveUse&) = delete;

    // Whether no other process had the file open, or opens it now, which waits for the end of this.
    bool isGranted() const;

private:
    bool m_isGranted;
};

} // namespace kelvane::tool
