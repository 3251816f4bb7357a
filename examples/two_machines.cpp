// Two processes, each with an image and its hash file, and nothing but a socket between them, find where the images
// differ: they exchange hashes of ranges, and halve what differs. Usage: two_machines IMAGE IMAGE

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <kelvane/BlockHashStore.h>
#include <kelvane/TargetSource.h>

using namespace kelvane;

namespace {

constexpr uint32_t BLOCK = 4096;

struct Range {
    kelvane_off_t offset;
    kelvane_off_t length;
};

// One machine: an image, which lends its bytes, and its store.
class Machine : public TargetSource {
public:
    explicit Machine(const std::string& image)
        : m_fd(::open(image.c_str(), O_RDONLY | O_CLOEXEC))
        , m_buffer(1 << 20)
    {
        struct stat status;
        if (m_fd < 0 || ::fstat(m_fd, &status) != 0) {
            throw std::runtime_error("cannot open " + image);
        }
        const std::string hashFile = image + ".two_machines";
        const auto size = static_cast<kelvane_size_t>(status.st_size);
        BlockHashStore::create(hashFile, Blake2dHashFunctionType, size, 0, BLOCK, true);
        m_store = BlockHashStore::open(hashFile, size);
        m_size = status.st_size;
    }

    kelvane_off_t size() const { return m_size; }

    BlockHashStore::HashValue hash(Range range) { return m_store->hash_range(range.offset, range.length, *this); }

    LentData lend(kelvane_off_t offset, kelvane_buf_len_t length) override
    {
        length = std::min(length, static_cast<kelvane_buf_len_t>(m_buffer.size()));
        if (::pread(m_fd, m_buffer.data(), static_cast<size_t>(length), offset) != length) {
            throw std::runtime_error("cannot read the image");
        }
        return {m_buffer.data(), length};
    }

private:
    int m_fd;
    std::vector<char> m_buffer;
    kelvane_off_t m_size = 0;
    std::unique_ptr<BlockHashStore> m_store;
};

// One end of the socket between the two, which counts.
class Wire {
public:
    explicit Wire(int fd)
        : m_fd(fd)
    {
    }

    void send(const void* data, size_t size)
    {
        if (::send(m_fd, data, size, MSG_NOSIGNAL) != static_cast<ssize_t>(size)) {
            throw std::runtime_error("cannot send");
        }
        m_bytes += size;
    }

    bool receive(void* data, size_t size)
    {
        const bool all = ::recv(m_fd, data, size, MSG_WAITALL) == static_cast<ssize_t>(size);
        m_bytes += all ? size : 0;
        return all;
    }

    size_t bytes() const { return m_bytes; }

private:
    int m_fd;
    size_t m_bytes = 0;
};

// Answers with the hashes of the ranges that it is asked for, until the other end closes.
void answer(Machine& machine, Wire wire)
{
    const kelvane_off_t size = machine.size();
    wire.send(&size, sizeof(size));
    for (Range range; wire.receive(&range, sizeof(range));) {
        const auto hash = machine.hash(range);
        wire.send(hash.data(), hash.size());
    }
}

class Finder {
public:
    Finder(Machine& machine, Wire& wire)
        : m_machine(machine)
        , m_wire(wire)
    {
    }

    void compare(Range range)
    {
        BlockHashStore::HashValue theirs(32);
        m_wire.send(&range, sizeof(range));
        if (!m_wire.receive(theirs.data(), theirs.size())) {
            throw std::runtime_error("the other machine is gone");
        }
        if (theirs == m_machine.hash(range)) {
            return;
        }
        if (range.length <= BLOCK) {
            std::printf("differ: %lld + %lld\n", static_cast<long long>(range.offset),
                        static_cast<long long>(range.length));
            ++m_differences;
            return;
        }
        const kelvane_off_t half = (range.length / 2 + BLOCK - 1) / BLOCK * BLOCK;
        compare({range.offset, half});
        compare({range.offset + half, range.length - half});
    }

    int differences() const { return m_differences; }

private:
    Machine& m_machine;
    Wire& m_wire;
    int m_differences = 0;
};

int ask(Machine& machine, Wire wire)
{
    kelvane_off_t size = 0;
    if (!wire.receive(&size, sizeof(size)) || size != machine.size()) {
        throw std::runtime_error("the images differ in size");
    }
    Finder finder(machine, wire);
    if (size > 0) {
        finder.compare({0, size});
    }
    std::printf("%d blocks of two images of %lld bytes differ: found with %zu bytes exchanged\n", finder.differences(),
                static_cast<long long>(size), wire.bytes());
    return finder.differences() == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    int sockets[2];
    if (argc != 3 || ::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) != 0) {
        std::fprintf(stderr, "usage: two_machines IMAGE IMAGE\n");
        return 2;
    }
    const pid_t child = ::fork();
    const int other = child == 0 ? 1 : 0;
    ::close(sockets[1 - other]);
    int result = 2;
    try {
        Machine machine(argv[1 + other]);
        if (child == 0) {
            answer(machine, Wire(sockets[1]));
            result = 0;
        } else {
            result = ask(machine, Wire(sockets[0]));
        }
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "two_machines: %s: %s\n", argv[1 + other], exception.what());
    }
    ::close(sockets[other]);
    if (child > 0) {
        ::waitpid(child, nullptr, 0);
    }
    return result;
}
