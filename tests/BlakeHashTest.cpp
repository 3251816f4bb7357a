#include "BlakeHash.h"

#include <blake2.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <deque>

#include "HashFunctionFactory.h"
#include "Support.h"
#include "hash/Blake2sp.h"

#include "hash/Targets.h" // so that both mean the same targets
#include <hwy/targets.h>

namespace kelvane {

struct Blake2spMessageTestPeer {
    static void setAbsorbed(Blake2spMessage& message, uint64_t bytes) { message.m_leaves.absorbed = bytes; }
};

namespace testing {
namespace {

constexpr std::size_t DIGEST = BLAKE2SP_DIGEST_SIZE_IN_BYTES;

Bytes referenceDigest(const void* message, std::size_t length)
{
    Bytes digest(DIGEST);
    EXPECT_EQ(::blake2sp(digest.data(), message, nullptr, DIGEST, length, 0), 0);
    return digest;
}

// The end of at least `size` random bytes, which is the start of a page that cannot be read.
std::shared_ptr<unsigned char> endOfGuardedBytes(std::size_t size, unsigned seed)
{
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const std::size_t usable = (size / page + 1) * page;
    void* memory = ::mmap(nullptr, usable + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    unsigned char* end = std::ranges::copy(randomBytes(usable, seed), static_cast<unsigned char*>(memory)).out;
    EXPECT_EQ(::mprotect(end, page, PROT_NONE), 0);
    return {end, [=](unsigned char*) { ::munmap(memory, usable + page); }};
}

// Hashes a batch to where a hash file would have the digests, unaligned and each behind a byte of another
// meaning. As many as there are in `digests` must be written, and no other byte.
void expectBatch(IHashFunction& hash, const std::vector<kelvane_buf_t>& buffers, kelvane_buf_len_t length,
                 const std::vector<Bytes>& digests)
{
    const std::size_t entry = 1 + (digests.empty() ? DIGEST : digests[0].size());
    Bytes actual(buffers.size() * entry + 1, 0xA5), expected = actual;
    std::vector<unsigned char*> places;
    for (std::size_t i = 0; i < buffers.size(); ++i) {
        places.push_back(&actual[i * entry + 1]);
        if (i < digests.size()) {
            std::ranges::copy(digests[i], &expected[i * entry + 1]);
        }
    }
    EXPECT_EQ(hash.get_hashes(buffers.data(), buffers.size(), length, places.data()), digests.size());
    EXPECT_EQ(actual, expected);
}

std::vector<std::int64_t> builtInstructionSets()
{
    std::vector<std::int64_t> targets;
    for (std::int64_t rest = HWY_TARGETS; rest != 0; rest &= rest - 1) {
        targets.push_back(rest & -rest);
    }
    return targets;
}

// Every test of this suite runs on each instruction set that the build has, and is skipped where this machine has not.
class Blake2spTest : public ::testing::TestWithParam<std::int64_t> {
protected:
    ~Blake2spTest() override { hwy::SetSupportedTargetsForTest(0); }
    void SetUp() override
    {
        if ((hwy::SupportedTargets() & GetParam()) == 0) {
            GTEST_SKIP() << "skipped: digests on " << hwy::TargetName(GetParam()) << ": this machine does not have it";
        }
        hwy::SetSupportedTargetsForTest(GetParam());
        ASSERT_STREQ(blake2spInstructionSet(), hwy::TargetName(GetParam()));
    }
};

INSTANTIATE_TEST_SUITE_P(Targets, Blake2spTest, ::testing::ValuesIn(builtInstructionSets()),
                         [](const auto& target) { return std::string(hwy::TargetName(target.param)); });

TEST_P(Blake2spTest, HashesMessagesOfEveryLength)
{
    constexpr std::size_t EVERY = 2100, LONGEST = 20000;
    const auto end = endOfGuardedBytes(LONGEST + 64, 1);
    std::mt19937 generator(2);
    for (std::size_t i = 0; i < EVERY + 40; ++i) {
        const std::size_t length = i <= EVERY ? i : EVERY + generator() % (LONGEST - EVERY);
        for (const std::size_t distance : {std::size_t {0}, generator() % 64}) {
            const unsigned char* message = end.get() - distance - length;
            Bytes digest(1 + DIGEST);
            blake2sp(message, length, &digest[1]);
            digest.erase(digest.begin());
            ASSERT_EQ(digest, referenceDigest(message, length)) << length << " bytes, " << distance << " from the end";
        }
    }
}

TEST_P(Blake2spTest, HashesBatchesOfEveryCount)
{
    constexpr std::size_t MOST = 64 + 1; // no vector has more lanes than 16, no batch of leaves more messages than 64
    std::vector<std::shared_ptr<unsigned char>> ends;
    for (unsigned i = 0; i < MOST; ++i) {
        ends.push_back(endOfGuardedBytes(8192, i));
    }
    BlakeHash hash;
    for (const int length : {0, 1, 63, 64, 65, 449, 511, 512, 513, 961, 1023, 1024, 1025, 1537, 4096, 4097, 5000}) {
        // Filled from its front, so that every message comes by every lane; a third are off the guard.
        std::deque<kelvane_buf_t> messages;
        std::deque<Bytes> digests;
        for (std::size_t count = 0; count <= MOST && !HasFailure(); ++count) {
            SCOPED_TRACE(std::to_string(count) + " messages of " + std::to_string(length) + " bytes");
            if (count != 0) {
                messages.push_front(ends[count - 1].get() - length - (count % 3 == 0 ? count : 0));
                digests.push_front(referenceDigest(messages[0], static_cast<std::size_t>(length)));
            }
            expectBatch(hash, {messages.begin(), messages.end()}, length, {digests.begin(), digests.end()});
        }
    }
}

// Cut at every place where something could go wrong, and into pieces of any length.
TEST_P(Blake2spTest, HashesMessagesInPieces)
{
    constexpr std::size_t LONGEST = 6000;
    const auto end = endOfGuardedBytes(LONGEST, 5);
    const unsigned char* const start = end.get() - LONGEST;
    const auto check = [&](std::size_t length, const std::function<std::size_t()>& piece) {
        Blake2spMessage message;
        for (std::size_t done = 0, count = 0; done < length; done += count) {
            count = std::min(piece(), length - done);
            message.add(start + LONGEST - length + done, count);
        }
        Bytes digest(DIGEST);
        message.add(nullptr, 0);
        message.finish(digest.data());
        ASSERT_EQ(digest, referenceDigest(start + LONGEST - length, length)) << length;
    };
    for (const std::size_t length : {0, 1, 511, 512, 513, 1023, 1024, 1025, 1535, 1536, 2047, 2048, 2049, 4608}) {
        for (std::size_t cut = 0; cut <= length; cut += cut % 512 > 1 && cut % 512 < 510 ? 127 : 1) {
            check(length, [&, first = true]() mutable { return std::exchange(first, false) ? cut : length; });
        }
    }
    std::mt19937 generator(6);
    for (int i = 0; i < 300; ++i) {
        const std::size_t longest = i % 3 == 0 ? 100 : 2500;
        check(generator() % LONGEST, [&] { return generator() % longest; });
    }
}

// Where a leaf's counter passes 2^32.
TEST_P(Blake2spTest, CountsTheBytesOfMessagesOfAnyLength)
{
    const Bytes bytes = randomBytes(5000, 8);
    for (const uint64_t absorbed : {(uint64_t {1} << 35) - 2048, (uint64_t {1} << 35) - 512, uint64_t {5} << 36}) {
        ::blake2sp_state reference;
        ::blake2sp_init(&reference, DIGEST);
        for (auto& leaf : reference.S) {
            leaf->t[0] = static_cast<uint32_t>(absorbed / 8);
            leaf->t[1] = static_cast<uint32_t>(absorbed / 8 >> 32);
        }
        ::blake2sp_update(&reference, bytes.data(), bytes.size());
        Bytes expected(DIGEST), digest(DIGEST);
        ::blake2sp_final(&reference, expected.data(), DIGEST);
        Blake2spMessage message;
        Blake2spMessageTestPeer::setAbsorbed(message, absorbed);
        message.add(bytes.data(), bytes.size());
        message.finish(digest.data());
        EXPECT_EQ(digest, expected) << absorbed;
    }
}

TEST(BlakeHashTest, RunsOnTheWidestInstructionSet)
{
    EXPECT_STREQ(blake2spInstructionSet(), hwy::TargetName(hwy::SupportedAndGeneratedTargets().front()));
}

// Batches of zeros alone, with one neighbour that is zero but for its first byte, and with all kinds: zeros but for
// the first, the last, the middle or any byte, and random ones.
TEST(BlakeHashTest, TellsZeroBuffersFromNearlyZeroOnes)
{
    BlakeHash hash;
    std::mt19937 generator(3);
    for (const std::size_t length : {1, 2, 3, 8, 33, 64, 511, 513, 4096, 4097}) {
        for (const unsigned kinds : {1u, 2u, 6u}) {
            SCOPED_TRACE(std::to_string(length) + " bytes, kinds: " + std::to_string(kinds));
            std::deque<Bytes> contents;
            std::vector<kelvane_buf_t> buffers;
            std::vector<Bytes> digests;
            for (std::size_t i = 0; i < 150; ++i) {
                const auto kind = static_cast<unsigned>(generator() % kinds);
                contents.push_back(kind == 5 ? randomBytes(length, static_cast<unsigned>(i)) : Bytes(length));
                const std::size_t positions[] = {0, 0, length - 1, length / 2, generator() % length, 0};
                contents[i][positions[kind]] |= static_cast<unsigned char>(kind == 0 ? 0 : 1u << generator() % 8);
                buffers.push_back(contents[i].data());
                digests.push_back(hash.get_hash(buffers[i], static_cast<kelvane_buf_len_t>(length)));
            }
            expectBatch(hash, buffers, static_cast<kelvane_buf_len_t>(length), digests);
        }
    }
}

TEST(BlakeHashTest, HashesEmptyBuffersAndRefusesImpossibleOnes)
{
    const Bytes ofNothing = referenceDigest("", 0);
    unsigned char byte = 7;
    const std::tuple<kelvane_buf_t, kelvane_buf_len_t, Bytes> cases[]
        = {{nullptr, 0, ofNothing}, {&byte, 0, ofNothing}, {nullptr, 1, {}}, {nullptr, -1, {}}, {&byte, -1, {}}};
    BlakeHash hash;
    for (const auto& [buffer, length, digest] : cases) {
        SCOPED_TRACE(length);
        EXPECT_EQ(hash.get_hash(buffer, length), digest);
        expectBatch(hash, {buffer, buffer, buffer}, length, std::vector<Bytes>(digest.empty() ? 0 : 3, digest));
    }
    EXPECT_EQ(hash.get_hashes(nullptr, 0, 4096, nullptr), 0);
}

// At a null buffer, in all that is queued, or where the hash function that others bring gives no digest.
TEST(BlakeHashTest, StopsABatchAtTheFirstFailure)
{
    constexpr std::size_t COUNT = 140;
    Bytes random = randomBytes(COUNT + 1000, 4), zeros(1000);
    for (const std::size_t failing : {0, 1, 2, 63, 64, 65, 130, 139, 140}) { // the last one is none of the batch
        SCOPED_TRACE(failing);
        std::vector<kelvane_buf_t> buffers;
        std::vector<Bytes> digests;
        for (std::size_t i = 0; i < COUNT; ++i) {
            buffers.push_back(i % 5 == 1 ? zeros.data() : &random[i]);
            if (i < failing) {
                digests.push_back(referenceDigest(buffers[i], 1000));
            }
        }
        for (const std::size_t sizeOfFailure : {0, 1, 33}) {
            FailingHash others(static_cast<int>(failing), sizeOfFailure);
            expectBatch(others, buffers, 1000, digests);
        }
        (failing < COUNT ? buffers[failing] : buffers.emplace_back()) = nullptr;
        BlakeHash hash;
        expectBatch(hash, buffers, 1000, digests);
    }
}

// Whether it can hash in pieces or not.
TEST(BlakeHashTest, HashesMessagesInPiecesWithEveryHashFunction)
{
    BlakeHash blake;
    FailingHash others(1, 0);
    Bytes bytes = randomBytes(5000, 7);
    for (IHashFunction* const function : {static_cast<IHashFunction*>(&blake), static_cast<IHashFunction*>(&others)}) {
        const auto message = function->begin_message();
        for (const std::size_t length : {0, 1000, 4000}) {
            message->add(length == 0 ? nullptr : &bytes[length == 4000 ? 1000 : 0], length);
        }
        EXPECT_EQ(message->finish(), digestOf(bytes));
    }
    EXPECT_TRUE(others.begin_message()->finish().empty());
}

// A hash function derived from it is asked for every block, and noticed when it fails.
TEST(BlakeHashTest, LeavesBatchesToDerivedHashFunctions)
{
    struct Derived : BlakeHash {
        HashValue get_hash(kelvane_buf_t buffer, kelvane_buf_len_t length) override
        {
            return calls++ == 7 ? HashValue() : BlakeHash::get_hash(buffer, length);
        }
        int calls = 0;
    } derived;
    Bytes bytes = randomBytes(100, 9);
    expectBatch(derived, std::vector<kelvane_buf_t>(10, bytes.data()), 100, std::vector<Bytes>(7, digestOf(bytes)));
    EXPECT_EQ(derived.begin_message()->finish(), referenceDigest("", 0));
    EXPECT_EQ(derived.calls, 9);
}

TEST(HashFunctionFactoryTest, KnowsTheOneFunction)
{
    for (const std::uint32_t unknown : {0u, 2u, ~0u}) {
        EXPECT_EQ(HashFunctionFactory::createHashFunction(static_cast<HashFunctionType>(unknown)), nullptr) << unknown;
    }
    const auto hash = HashFunctionFactory::createHashFunction(static_cast<HashFunctionType>(1));
    ASSERT_NE(hash, nullptr);
    EXPECT_EQ(std::pair(hash->hash_id(), hash->hash_size_in_bytes()), std::pair(Blake2dHashFunctionType, DIGEST));
    IHashFunction none;
    unsigned char byte = 7;
    EXPECT_EQ(std::pair(none.hash_id(), none.hash_size_in_bytes()), std::pair(Invalid, 0UL));
    EXPECT_TRUE(none.get_hash(&byte, 1).empty());
    expectBatch(none, {&byte}, 1, {});
}

} // namespace
} // namespace testing
} // namespace kelvane
