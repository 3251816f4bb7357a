#!/usr/bin/env python3
"""Do the tests bite? Plants one bug at a time in a copy of the sources, rebuilds, and runs the tests.
mutants.py WORK_DIRECTORY [--all: name all tests that fail] [TEXT: plant the bugs that hold it]"""
import os, re, shutil, subprocess, sys, tempfile

# A file, then its bugs: what stands there exactly once => what takes its place ("\n" is a line end).
BUGS = r"""
@ src/BlockHashStore.cpp
firstFullBlock = divideRoundingUp(start, blockSize); => firstFullBlock = start / blockSize;
<= end - start); => <= end - start + 1);
offset >= 0 && start >= m_header.partitionOffset && => offset >= 0 &&
(*flags & InUse) == 0 => *flags != InUse
*entry = InUse;\n            const => *entry = static_cast<char>(*entry | InUse);\n            const
std::memset(m_hashBuffer.get(), 0, static_cast<std::size_t>(bytesToWrite)); =>
std::memset(m_blockBuffer.get(), 0, static_cast<std::size_t>(blockSize)); =>
add(m_blockBuffer.get(), entry + 1) && hasher.flush() => add(m_blockBuffer.get(), entry + 1)
entryOffsetInFile(span.firstBlock); => entryOffsetInFile(span.firstBlock + span.firstFullPosition);
span.firstFullPosition * blockSize - span.partialStart => span.firstFullPosition * blockSize
|| std::find(data.begin(), data.end(), nullptr) != data.end() =>
data.size() != runs.offsets.size() => data.size() < runs.offsets.size()
m_header.version != BLOCK_HASH_STORE_CURRENT_VERSION => false
hashSize()) != fileSize => hashSize()) > fileSize
!S_ISREG(status.st_mode) => S_ISDIR(status.st_mode)
m_file.sync_file_range(whereTo, static_cast<kelvane_buf_len_t>(length)) != 0 => false
O_RDWR | O_SYNC => O_RDWR
O_CREAT | O_TRUNC | O_SYNC => O_CREAT | O_SYNC
deleteFileOnError && posix::unlink(path) == 0 => posix::unlink(path) == 0
Logger(KELVANE_INFO, SOURCE_FILE, __LINE__, function) => Logger(KELVANE_DEBUG, SOURCE_FILE, __LINE__, function)
m_fd != INVALID_FD && posix::close(m_fd) != 0 => m_fd == INVALID_FD
std::uncaught_exceptions() == 0 => true
return decltype(operation())(); => throw;
m_hashBufferSize < sizeRequested => m_hashBufferSize + 32 < sizeRequested
sizeRequested) {\n        m_hashBuffer = => sizeRequested) {\n        m_hashBufferSize = sizeRequested, m_hashBuffer =
entry.begin() + (boundary - start); => entry.begin() + (boundary - start) + 1;
(entry.front() & InUse) == 0 || =>
if (!validReadWrite(bytesToWrite, m_file.write(m_hashBuffer.get(), => if (0 > (m_file.write(m_hashBuffer.get(),
if (!validReadWrite(bytesToWrite, m_file.write(first, => if (0 > (m_file.write(first,
posix::writeOnce(fd, zeros.get(), bytesToWrite);\n        if (!validReadWrite(static_cast<kelvane_ssize_t>(bytesToWrite), bytesWritten)) => posix::writeOnce(fd, zeros.get(), bytesToWrite);\n        if (bytesWritten < 0)
span.numberOfBlocks > MAXIMUM_BLOCKS_PER_REQUEST => span.numberOfBlocks >= MAXIMUM_BLOCKS_PER_REQUEST
@ src/SimpleCachedReader.cpp
dropCache(); // nobody => // nobody
static_cast<kelvane_ssize_t>(moved);\n    const => window.length;\n    const
m_read_buffer_end_offset = std::min(m_read_buffer_end_offset, end); =>
m_seek_offset <= m_read_buffer_end_offset => m_seek_offset <= m_read_buffer_end_offset + 1
m_fd(std::exchange(other.m_fd, INVALID_FD)) => m_fd(other.m_fd)
close();\n        m_seek_offset => m_seek_offset
m_seek_offset - m_last_read_end <= ASCENDING_GAP => m_seek_offset == -1
@ src/PosixFile.cpp
retryInterrupted([&] { return ::fsync(fd); }) => ::fsync(fd)
retryInterrupted([&] { return call(transfer.moved); }) => call(transfer.moved)
transfer.moved += static_cast<std::size_t>(count); => transfer.moved += static_cast<std::size_t>(count); break;
offset + static_cast<off_t>(moved));\n    });\n}\n\nssize_t => offset);\n    });\n}\n\nssize_t
| SYNC_FILE_RANGE_WAIT_AFTER => | 0
return ::close(fd); => return retryInterrupted([&] { return ::close(fd); });
@ src/BlakeHash.cpp
bytes + 1, length - 1) => bytes + 1, length - (length > 1 ? 2 : 1))
@ src/IHashFunction.cpp
|| hash.size() != hash_size_in_bytes() =>
@ src/Blake2sp.cpp
leafDigests + (lane < count => leafDigests + (lane + 1 < count
counter = offset / LEAVES + own => counter = offset / LEAVES + (own == 63 ? 64 : own)
@ src/Logger.cpp
}\n    errno = m_savedErrno;\n} => }\n}
@ include/TargetWriteGuard.h
!m_store.sync_to_disk() => false
makeUnknownAgain();\n            throw; => throw;
m_store.sync_to_disk(); // => //
catch (...) {\n            // => catch (const std::runtime_error&) {\n            //
std::uncaught_exceptions() != 0) {\n            throw std::runtime_error("cannot guard => false) {\n            throw std::runtime_error("cannot guard
std::uncaught_exceptions() != 0) {\n            throw std::runtime_error("cannot commit => false) {\n            throw std::runtime_error("cannot commit
"""
SLOW = "*FaultSweep*:CrashTest*:CorruptFile*"


def bugs(options):
    for line in BUGS.strip().splitlines():
        if line.startswith("@ "):
            name = line[2:]
        elif all(option in line for option in options if option != "--all"):
            yield name, line, *(part.strip(" ").replace(r"\n", "\n") for part in line.split("=>", 1))


def failing_tests(program, everything, environment):
    """The first test that fails, or all of them; a hang and a crash count too."""
    failed = []
    for test_filter in ["-" + SLOW, SLOW]:
        command = ["timeout", "300", program, "--gtest_filter=" + test_filter, f"--gtest_fail_fast={not everything:d}"]
        run = subprocess.run(command, capture_output=True, env=environment, errors="replace")
        failed += dict.fromkeys(re.findall(r"^\[  FAILED  \] (\S+?),? .*\(\d+ ms\)$", run.stdout, re.MULTILINE))
        failed += {0: [], 1: [] if failed else ["a test"], 124: ["a hang"]}.get(run.returncode, ["a crash"])
        if failed and not everything:
            break
    return failed


def main():
    work, *options = sys.argv[1:]
    copy, build = (os.path.join(os.path.abspath(work), name) for name in ("copy", "build"))
    shutil.rmtree(copy, ignore_errors=True)
    shutil.copytree(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), copy,
                    ignore=shutil.ignore_patterns("build", ".git"), copy_function=shutil.copy)
    subprocess.run(["cmake", "-S", copy, "-B", build, "-DCMAKE_BUILD_TYPE=None", "-DCMAKE_CXX_FLAGS=-O1 -w",
                    "-DKELVANE_BUILD_TOOLS=OFF", "-DKELVANE_BUILD_EXAMPLES=OFF"], check=True, stdout=subprocess.DEVNULL)
    results = []
    for name, line, before, after in [("CMakeLists.txt", "no bug", "project(", "project("), *bugs(options)]:
        path = os.path.join(copy, name)
        original = open(path).read()
        assert original.count(before) == 1, f"{name}: not there exactly once: {before}"
        open(path, "w").write(original.replace(before, after))
        if subprocess.run(["cmake", "--build", build, "-t", "kelvane_tests"], stdout=subprocess.DEVNULL).returncode:
            sys.exit(f"{name}: does not compile: {line}")
        with tempfile.TemporaryDirectory() as temporary:  # a crash leaves files behind
            environment = dict(os.environ, TMPDIR=temporary, GTEST_BRIEF="1")
            tests = failing_tests(build + "/tests/kelvane_tests", "--all" in options, environment)
        open(path, "w").write(original)
        results.append(bool(tests))
        assert not results[0], "the tests fail without any bug"
        if len(results) > 1:
            print(f"{name}: {line}\n    {'caught by ' + ', '.join(tests) if tests else 'NOT CAUGHT'}", flush=True)
    print(f"mutants: {len(results) - 1} planted, {sum(results[1:])} caught")
    return not all(results[1:])


sys.exit(main())
