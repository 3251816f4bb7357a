// kelvane-hash: keeps, shows, checks and uses the hash files of disk images.

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdio>
#include <functional>
#include <iostream>
#include <kelvane/Logger.h>
#include <limits>
#include <utility>

#include "base/Failure.h"
#include "base/Interrupt.h"
#include "base/Number.h"
#include "commands/Commands.h"

using namespace kelvane::tool;

namespace {

constexpr int DIFFERS = 1;
constexpr int ERROR = 2;

// The functions that read a value throw a ValidationError, to which the name of the option is added.
template <class Number>
Number parseWithin(const std::string& text, Number least, Number most)
{
    const auto number = parseNumber<Number>(text);
    if (!number || *number < least || *number > most) {
        throw CLI::ValidationError("not a number from " + std::to_string(least) + " to " + std::to_string(most) + ": "
                                   + text);
    }
    return *number;
}

// Bytes, with a unit of powers of 1024 that is written as K, KB, Ki or KiB, large or small.
std::int64_t parseSize(const std::string& text)
{
    constexpr std::string_view UNITS = "bkmgtpe";
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    const auto number = parseNumber<std::int64_t>(text.substr(0, digits));
    const std::string unit = CLI::detail::to_lower(CLI::detail::trim_copy(text.substr(digits)));
    const std::size_t power = unit.empty() ? 0 : UNITS.find(unit[0]);
    const std::string rest = unit.empty() ? "" : unit.substr(1);
    const bool isUnit
        = power < UNITS.size() && (rest.empty() || (power > 0 && (rest == "b" || rest == "i" || rest == "ib")));
    if (!number || !isUnit || *number > std::numeric_limits<std::int64_t>::max() >> (10 * power)) {
        throw CLI::ValidationError("not a size like 4096, 64K or 1GiB: " + text);
    }
    return *number << (10 * power);
}

double parseShare(const std::string& text)
{
    double share = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, share);
    if (error != std::errc() || stop != end || !(share >= 1e-9 && share <= 1)) {
        throw CLI::ValidationError("not a share like 0.05, above 0 and up to 1: " + text);
    }
    return share;
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
    using Take = std::function<void(const std::string& value)>;

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
        addValue(app, "--jobs,-j", "N", "Threads that hash; default: as many as cores",
                 [this](const std::string& text) { m_common.jobs = parseWithin(text, 1U, 1024U); });
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

    static void addValue(CLI::App* app, const std::string& name, const std::string& type, const std::string& text,
                         const Take& take)
    {
        app->add_option(name)->each(take)->description(text)->type_name(type);
    }

    static void addImage(CLI::App* app, ImageArguments& arguments, const std::string& name, const std::string& option)
    {
        app->add_option(name, arguments.image, "A regular file or a block device")->required()->type_name("");
        app->add_option(option, arguments.hashFile.path, "Its hash file; default: " + name + ".hashes")
            ->type_name("FILE");
    }

    void addGeometry(CLI::App* app)
    {
        addValue(app, "--block-size", "SIZE", "Bytes per hash in a hash file that is made; default: 4096",
                 [this](const std::string& text) {
                     const std::int64_t size = parseSize(text);
                     if (size == 0 || !std::in_range<std::uint32_t>(size)) {
                         throw CLI::ValidationError("not from 1 to 4294967295 bytes: " + text);
                     }
                     m_pair.first.hashFile.blockSize = static_cast<std::uint32_t>(size);
                     m_pair.second.hashFile.blockSize = m_pair.first.hashFile.blockSize;
                 });
        addValue(app, "--partition-offset", "SIZE",
                 "Where the image starts on its device, when it is a partition; all offsets count from the start of "
                 "the device",
                 [this](const std::string& text) {
                     m_pair.first.hashFile.partitionOffset = static_cast<std::uint64_t>(parseSize(text));
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
        addValue(app, "--range", "OFFSET:LENGTH", "Only this range; default: all", [this](const std::string& text) {
            const std::size_t colon = text.find(':');
            if (colon == std::string::npos) {
                throw CLI::ValidationError("not a range like 1GiB:64K: " + text);
            }
            m_range = Range {parseSize(text.substr(0, colon)), parseSize(text.substr(colon + 1))};
        });
        addTrust(app);
        addWork(app);
    }

    void addVerify()
    {
        CLI::App* const app = add("verify", "Check the known hashes against the image", "verify disk.img --sample 0.05",
                                  [this] { return verify(m_pair.first, m_verify, m_common); });
        addImage(app, m_pair.first, "IMAGE", "--hash-file");
        addValue(app, "--sample", "SHARE", "Check a random share of the image, above 0 and up to 1",
                 [this](const std::string& text) { m_verify.share = parseShare(text); });
        addValue(app, "--seed", "N", "Check the share that this number stands for", [this](const std::string& text) {
            m_verify.seed = parseWithin<std::uint64_t>(text, 0, std::numeric_limits<std::uint64_t>::max());
        });
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
        addValue(app, "--timeout", "N", "Seconds without a sign of life after which it is given up; default: 60",
                 [this](const std::string& text) {
                     m_pair.remote.timeout = std::chrono::seconds(parseWithin(text, 1U, 86400U));
                 });
        app->add_flag("--compress")
            ->each([this](const std::string& text) {
                m_pair.remote.compression = text == "true" ? 3 : parseWithin(text, 1U, 19U);
            })
            ->description("Compress data on its way, with =LEVEL from 1 (fast) to 19 (small)");
        addValue(app, "--bwlimit", "SIZE",
                 "Bytes of data per second at most, on their way to the other machine or back",
                 [this](const std::string& text) { m_pair.remote.bytesPerSecond = parseSize(text); });
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
