// kelvane-hash: keeps, shows, checks and uses the hash files of disk images.

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <functional>
#include <iostream>
#include <kelvane/Logger.h>
#include <limits>

#include "base/Failure.h"
#include "base/Interrupt.h"
#include "commands/Commands.h"

using namespace kelvane::tool;

namespace {

constexpr int DIFFERS = 1;
constexpr int ERROR = 2;

std::int64_t parseSize(const std::string& given)
{
    try {
        std::uint64_t value = 0;
        std::string text = given;
        if (given.find_first_of("0123456789") == 0 && CLI::AsSizeValue(false)(text).empty()
            && CLI::detail::lexical_cast(text, value)
            && value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return static_cast<std::int64_t>(value);
        }
    } catch (const CLI::ValidationError&) {
        // its text lists every unit
    }
    throw CLI::ValidationError("not a size like 4096, 64K or 1GiB: " + given);
}

// Reads the options of a command into the arguments of its function, which runs when all are read.
class CommandLine {
public:
    CommandLine()
        : m_app("Keeps the hashes of the blocks of disk images, and finds by them what differs.", "kelvane-hash")
    {
        m_app.set_version_flag("--version", KELVANE_VERSION);
        m_app.require_subcommand(1);
        m_app.footer("Exit codes: 0 done, or equal; 1 different, or wrong; 2 error; 128 + signal when interrupted.\n"
                     "Every command shows an example: kelvane-hash build --help");
        addBuild();
        addInfo();
        addHash();
        addVerify();
        addDiff();
        addSync();
        addServe();
        addInvalidate();
    }

    // The command to run; nothing when help was asked for and printed.
    std::function<Outcome()> parse(int argc, char** argv)
    {
        try {
            m_app.parse(argc, argv);
        } catch (const CLI::Success& request) {
            m_app.exit(request);
            return nullptr;
        }
        return m_command;
    }

    bool json() const { return m_json; }

private:
    using Sized = std::function<void(std::int64_t)>;

    CLI::App* add(const std::string& name, const std::string& text, const std::string& example,
                  std::function<Outcome()> command)
    {
        CLI::App* const app = m_app.add_subcommand(name, text);
        app->footer("Example:\n  kelvane-hash " + example);
        app->add_flag("--json", m_json, "Print the result as JSON");
        app->callback([this, command] { m_command = command; });
        return app;
    }

    void addWork(CLI::App* app)
    {
        app->add_option("--jobs,-j", m_common.jobs, "Threads that hash; default: as many as cores")
            ->check(CLI::Range(1U, 1024U).description(""))
            ->type_name("N");
        app->add_option("--progress", m_common.progress, "auto (on a terminal), none or json (lines on standard error)")
            ->transform(CLI::CheckedTransformer(std::map<std::string, ProgressMode> {{"auto", ProgressMode::Automatic},
                                                                                     {"none", ProgressMode::None},
                                                                                     {"json", ProgressMode::Json}})
                            .description(""))
            ->type_name("HOW");
    }

    void addTrust(CLI::App* app)
    {
        app->add_flag_callback(
            "--assume-unchanged", [this] { m_common.trust = Trust::Everything; },
            "Believe the known hashes without evidence: the image was not changed since they were stored");
        app->add_flag_callback(
               "--check", [this] { m_common.trust = Trust::Nothing; },
               "Check all known hashes against the image, and repair them, whatever the evidence")
            ->excludes("--assume-unchanged");
        app->add_flag_callback(
            "--adopt", [this] { m_pair.first.hashFile.adopts = m_pair.second.hashFile.adopts = true; },
            "Take over a hash file that was made for another image, and check what it knows");
    }

    static void addSize(CLI::App* app, const std::string& name, const std::string& text, Sized set)
    {
        app->add_option_function<std::string>(
               name, [set](const std::string& value) { set(parseSize(value)); }, text)
            ->type_name("SIZE");
    }

    static void addImage(CLI::App* app, ImageArguments& arguments, const std::string& name, const std::string& option)
    {
        app->add_option(name, arguments.image, "A regular file or a block device")->required()->type_name("");
        app->add_option(option, arguments.hashFile.path, "Its hash file; default: " + name + ".hashes")
            ->type_name("FILE");
    }

    void addGeometry(CLI::App* app)
    {
        addSize(app, "--block-size", "Bytes per hash in a hash file that is made; default: 4096",
                [this](std::int64_t size) {
                    if (size == 0 || size > std::numeric_limits<std::uint32_t>::max()) {
                        throw CLI::ValidationError("the block size must be from 1 to 4294967295");
                    }
                    m_pair.first.hashFile.blockSize = static_cast<std::uint32_t>(size);
                    m_pair.second.hashFile.blockSize = m_pair.first.hashFile.blockSize;
                });
        addSize(app, "--partition-offset",
                "Where the image starts on its device, when it is a partition; all offsets count from the start of "
                "the device",
                [this](std::int64_t offset) {
                    m_pair.first.hashFile.partitionOffset = static_cast<std::uint64_t>(offset);
                    m_pair.second.hashFile.partitionOffset = m_pair.first.hashFile.partitionOffset;
                });
    }

    void addBuild()
    {
        CLI::App* const app
            = add("build", "Make or complete the hash file of an image", "build disk.img --block-size 64K --jobs 2",
                  [this] { return build(m_pair.first, m_afterCrash, m_common); });
        addImage(app, m_pair.first, "IMAGE", "--hash-file");
        addGeometry(app);
        app->add_flag("--after-crash", m_afterCrash,
                      "First forget hashes of which a crash of the machine, or of a program that wrote them, may have "
                      "left a half");
        addTrust(app);
        addWork(app);
    }

    void addInfo()
    {
        CLI::App* const app = add("info", "Show what a hash file holds; only reads it, so that it may be in use",
                                  "info disk.img.hashes", [this] { return info(m_pair.first.image); });
        app->add_option("FILE", m_pair.first.image, "A hash file")->required()->type_name("");
    }

    void addHash()
    {
        CLI::App* const app = add(
            "hash", "Print the hash of an image or of a range of it; unknown block hashes are computed and stored",
            "hash disk.img --range 1GiB:64K", [this] { return hash(m_pair.first, m_range, m_common); });
        addImage(app, m_pair.first, "IMAGE", "--hash-file");
        addGeometry(app);
        app->add_option_function<std::string>(
               "--range",
               [this](const std::string& text) {
                   const std::size_t colon = text.find(':');
                   if (colon == std::string::npos) {
                       throw CLI::ValidationError("not a range like 1GiB:64K: " + text);
                   }
                   m_range = Range {parseSize(text.substr(0, colon)), parseSize(text.substr(colon + 1))};
               },
               "Only this range; default: all")
            ->type_name("OFFSET:LENGTH");
        addTrust(app);
        addWork(app);
    }

    void addVerify()
    {
        CLI::App* const app = add("verify", "Check the known hashes against the image", "verify disk.img --sample 0.05",
                                  [this] { return verify(m_pair.first, m_verify, m_common); });
        addImage(app, m_pair.first, "IMAGE", "--hash-file");
        app->add_option("--sample", m_verify.share, "Check a random share of the image, above 0 and up to 1")
            ->check(CLI::Range(1e-9, 1.0).description(""))
            ->type_name("SHARE");
        app->add_option("--seed", m_verify.seed, "Check the share that this number stands for")->type_name("N");
        app->add_flag("--mark", m_verify.mark, "Make what is wrong unknown, for build to hash it again");
        addWork(app);
    }

    void addDiff()
    {
        CLI::App* const app
            = add("diff", "List the byte ranges in which two images differ; unknown hashes are computed and stored",
                  "diff yesterday.img today.img --json", [this] { return diff(m_pair, m_common); });
        addRemote(app);
        addImage(app, m_pair.first, "A", "--hash-file-a");
        addImage(app, m_pair.second, "B", "--hash-file-b");
        addGeometry(app);
        addTrust(app);
        addWork(app);
    }

    void addSync()
    {
        CLI::App* const app
            = add("sync", "Make an image equal to another one, copying only what differs",
                  "sync today.img backup.img --verify", [this] { return sync(m_pair, m_sync, m_common); });
        addRemote(app);
        addImage(app, m_pair.first, "SOURCE", "--source-hash-file");
        addImage(app, m_pair.second, "DEST", "--dest-hash-file");
        addGeometry(app);
        app->add_flag("--verify", m_sync.reread, "Read both images again afterwards and compare every byte");
        app->add_flag("!--no-sparse", m_sync.isSparse, "Leave no holes in DEST: write zeros there");
        addTrust(app);
        addWork(app);
    }

    void addRemote(CLI::App* app)
    {
        app->add_option("--rsh", m_pair.remote.rsh, "The command that leads to the other machine; default: ssh")
            ->type_name("COMMAND");
        app->add_option("--remote-program", m_pair.remote.program, "This program there; default: kelvane-hash")
            ->type_name("PATH");
        app->add_option_function<unsigned>(
               "--timeout", [this](unsigned seconds) { m_pair.remote.timeout = std::chrono::seconds(seconds); },
               "Seconds without a sign of life after which it is given up; default: 60")
            ->check(CLI::Range(1U, 86400U).description(""))
            ->type_name("N");
        app->add_flag("--compress{3}", m_pair.remote.compression,
                      "Compress data on its way, with =LEVEL from 1 (fast) to 19 (small)")
            ->check(CLI::Range(1U, 19U).description(""));
        addSize(app, "--bwlimit", "Bytes of data per second at most, on their way to the other machine or back",
                [this](std::int64_t size) { m_pair.remote.bytesPerSecond = size; });
    }

    void addServe()
    {
        CLI::App* const app = add("serve", "Be the other machine's side of diff and sync, on standard input and output",
                                  "serve --root /srv/images --read-only", [this] { return serve(m_serve); });
        app->add_option("--root", m_serve.root, "Serve no image or hash file outside of this directory")
            ->type_name("DIR");
        app->add_flag("--read-only", m_serve.isReadOnly, "Write nothing");
    }

    void addInvalidate()
    {
        CLI::App* const app = add("invalidate", "Forget the hashes of ranges that are known to have changed",
                                  "invalidate disk.img --from changes.txt",
                                  [this] { return invalidate(m_pair.first, m_invalidate, m_common); });
        addImage(app, m_pair.first, "IMAGE", "--hash-file");
        app->add_option("--from", m_invalidate.list, "The list of ranges; - is standard input")
            ->required()
            ->type_name("FILE");
        app->add_option("--format", m_invalidate.format,
                        "lines (OFFSET + LENGTH), diff, nbdinfo or qemu-img; default: as it looks like")
            ->transform(CLI::CheckedTransformer(std::map<std::string, ListFormat> {{"lines", ListFormat::Lines},
                                                                                   {"diff", ListFormat::Diff},
                                                                                   {"nbdinfo", ListFormat::Bitmap},
                                                                                   {"qemu-img", ListFormat::Map}})
                            .description(""))
            ->type_name("HOW");
        app->add_option("--what", m_invalidate.entries, "Of the list of qemu-img: data (default), zero or all")
            ->transform(CLI::CheckedTransformer(std::map<std::string, MapEntries> {{"data", MapEntries::Data},
                                                                                   {"zero", MapEntries::Zero},
                                                                                   {"all", MapEntries::All}})
                            .description(""))
            ->type_name("ENTRIES");
        addTrust(app);
        addWork(app);
    }

    CLI::App m_app;
    Common m_common;
    PairArguments m_pair;
    VerifyArguments m_verify;
    std::optional<Range> m_range;
    bool m_afterCrash = false;
    SyncArguments m_sync;
    InvalidateArguments m_invalidate;
    ServeArguments m_serve;
    bool m_json = false;
    std::function<Outcome()> m_command;
};

int complain(const std::string& text, int code)
{
    std::fprintf(stderr, "kelvane-hash: %s\n", text.c_str());
    return code;
}

int run(int argc, char** argv)
{
    CommandLine commandLine;
    const auto command = commandLine.parse(argc, argv);
    Outcome outcome;
    if (command) {
        outcome = command();
        const auto replacing = nlohmann::ordered_json::error_handler_t::replace; // names need not be UTF-8
        std::cout << (commandLine.json() ? outcome.json.dump(2, ' ', false, replacing) + "\n" : outcome.text);
    }
    if (!std::cout.flush()) {
        return complain("standard output: cannot write", ERROR);
    }
    return outcome.good ? 0 : DIFFERS;
}

} // namespace

int main(int argc, char** argv)
{
    kelvane::Logger::setSink([](auto&&...) {}); // failures are told in words of our own
    installInterruptHandler();
    try {
        return run(argc, argv);
    } catch (const CLI::Error& error) {
        return complain(std::string(error.what()) + " (see --help)", ERROR);
    } catch (const Interrupted& interrupted) {
        return complain(interrupted.what(), 128 + interruptSignal());
    } catch (const std::bad_alloc&) {
        return complain("out of memory", ERROR);
    } catch (const std::exception& error) {
        return complain(error.what(), ERROR);
    }
}
