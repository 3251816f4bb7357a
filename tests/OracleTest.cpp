// An independent program's view of a hash file that the store wrote.
#include <sys/wait.h>

#include <iomanip>
#include <sstream>

#include "Support.h"

namespace kelvane::testing {
namespace {

// What the program prints, and its exit status.
std::string runOracle(const std::string& arguments, const std::string& output)
{
    const std::string command = "'" KELVANE_PYTHON "' '" KELVANE_ORACLE "' " + arguments + " > '" + output + "'";
    const int status = std::system(command.c_str());
    const Bytes printed = readFile(output);
    return std::string(printed.begin(), printed.end()) + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1);
}

std::string hex(const Bytes& bytes)
{
    std::string text;
    for (const unsigned char byte : bytes) {
        text.append({"0123456789abcdef"[byte / 16], "0123456789abcdef"[byte % 16]});
    }
    return text;
}

TEST(Oracle, AgreesWithTheStoreAndNoticesWrongDigests)
{
    MemoryStore store(300000, 12345, 4096);
    const std::string image = store.directory.file("image"), output = store.directory.file("output");
    writeFile(image, store.target.bytes);
    std::ostringstream arguments;
    arguments << std::quoted(store.path) << " " << std::quoted(image);
    std::string expected;
    for (const auto& [start, length] :
         std::vector<std::pair<int64_t, int64_t>> {{0, 100000}, {5000, 100}, {4096, 4096}, {50001, 249999}, {777, 0}}) {
        expected += hex(store->get_hash(12345 + start, length, store.target.supplier())) + "\n";
        arguments << " " << 12345 + start << " " << length;
    }
    store->invalidate_hashes(12345 + 20000, 10000);
    EXPECT_EQ(runOracle(arguments.str(), output), expected + "0");
    Bytes file = store.file();
    file[DATA + ENTRY * 2 + 20] ^= 1;
    writeFile(store.path, file);
    EXPECT_EQ(runOracle(arguments.str(), output), "block 2 has another digest\n1");
}

} // namespace
} // namespace kelvane::testing
