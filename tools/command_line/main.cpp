// kelvane-hash: keeps, shows, checks and uses the hash files of disk images.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>
#include <iostream>
#include <kelvane/Logger.h>
#include <limits>
#include <type_traits>
#include <utility>

#include "base/Descriptor.h"
#include "base/Failure.h"
#include "base/Interrupt.h"
#include "command_line/Values.h"
#include "commands/Results.h"
#include "remote/Server.h"
#include "terminal/StandardError.h"

using namespace kelvane::tool;

namespace {

constexpr int DIFFERS = 1;
constexpr int ERROR = 2;

constexpr const char* NEAR_OR_FAR
    = "A regular file, a block device, or the URI of an NBD export; HOST:PATH for a file or device on another machine";

int complain(const std::string& text, int code)
{
    std::fprintf(stderr, "kelvane-hash: %s\n", text.c_str());
    return code;
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

    // The command to run, which returns the exit code; nothing when help was asked for and printed.
    std::function<int()> parse(int argc, char** argv)
    {
        const std::string first = argc > 1 ? argv[1] : "-";
        if (!first.starts_with('-')
            && m_app.get_subcommands([&](CLI::App* command) { return command->get_name() == first; }).empty()) {
            throw CLI::ValidationError("unknown command: " + first);
        }
        try {
            m_app.parse(argc, argv);
        } catch (const CLI::Success& request) {
            m_app.exit(request);
            return nullptr;
        } catch (const CLI::ExtrasError&) {
            const std::vector<std::string> extras = m_app.remaining(true);
            if (std::find(extras.begin(), extras.end(), "-P") == extras.end()) {
                throw;
            }
            throw CLI::ValidationError(
                "no -P as with rsync: on a terminal progress is shown anyhow, else with --progress "
                "json, and what was interrupted goes on where it stopped");
        }
        return m_command;
    }

private:
    using Take = std::function<void(const std::string& value)>;

    template <class Result>
    int report(const Result& result) const
    {
        std::cout << (m_json ? jsonOf(result) : textOf(result));
        return isGood(result.verdict) ? 0 : DIFFERS;
    }

    static int report(int code) { return code; } // of what was told already

    static int report(bool isDone) // what failed was told to the other side
    {
        return isDone ? 0 : interruptSignal() != 0 ? 128 + interruptSignal() : ERROR;
    }

    template <class Command>
    CLI::App* add(const std::string& name, const std::string& text, const std::string& example, Command command)
    {
        CLI::App* const app = m_app.add_subcommand(name, text);
        app->footer("Example:\n  kelvane-hash " + example);
        if constexpr (!std::is_same_v<std::invoke_result_t<Command, const Common&>, bool>) { // which is all it tells
            app->add_flag("--json", m_json, "Print the result as JSON");
        }
        app->callback([this, command] {
            m_command = [this, command] {
                const auto reporter = standardError(m_progress);
                return report(command({*reporter, m_jobs, m_trust, m_cache, m_pair.remote.timeout}));
            };
        });
        return app;
    }

    void addWork(CLI::App* app)
    {
        addValue(app, "--jobs,-j", "N", "Threads that hash; default: as many as cores",
                 [this](const std::string& text) { m_jobs = parseWithin(text, 1U, 1024U); });
        addValue(app, "--timeout", "N",
                 "Seconds without a sign of life of another machine, or of an export's server, after which it is given "
                 "up; default: 60",
                 [this](const std::string& text) {
                     m_pair.remote.timeout = std::chrono::seconds(parseWithin(text, 1U, 86400U));
                 });
        app->add_flag_callback(
            "--keep-cache", [this] { m_cache = Cache::Keep; },
            "Leave in memory what is read and written; otherwise it is left there as it was found");
        addChoice<ProgressMode>(
            app, "--progress", "HOW", "auto (on a terminal), none or json (lines on standard error)",
            {{"auto", ProgressMode::Automatic}, {"none", ProgressMode::None}, {"json", ProgressMode::Json}},
            m_progress);
    }

    void addTrust(CLI::App* app)
    {
        app->add_flag_callback(
            "--assume-unchanged", [this] { m_trust = Trust::Everything; },
            "Believe the known hashes without evidence: the image was not changed since they were stored");
        app->add_flag_callback(
               "--check", [this] { m_trust = Trust::Nothing; },
               "Check all known hashes against the image, and repair them, whatever the evidence")
            ->excludes("--assume-unchanged");
        app->add_flag_callback(
               "--adopt", [this] { m_pair.first.hashFile.adopts = m_pair.second.hashFile.adopts = true; },
               "Take over a hash file that was made for another image, and check what it knows")
            ->excludes("--assume-unchanged");
    }

    static void addValue(CLI::App* app, const std::string& name, const std::string& type, const std::string& text,
                         const Take& take)
    {
        app->add_option(name)->each(take)->description(text)->type_name(type);
    }

    template <class Choice, class Target>
    static void addChoice(CLI::App* app, const std::string& name, const std::string& type, const std::string& text,
                          const std::map<std::string, Choice>& choices, Target& target)
    {
        addValue(app, name, type, text, [choices, &target](const std::string& value) {
            const auto found = choices.find(value);
            if (found == choices.end()) {
                std::string names;
                for (const auto& choice : choices) {
                    names += (names.empty() ? "" : ", ") + choice.first;
                }
                throw CLI::ValidationError("not one of " + names + ": " + value);
            }
            target = found->second;
        });
    }

    static void addImage(CLI::App* app, ImageArguments& arguments, const std::string& name, const std::string& option,
                         const std::string& text = "A regular file, a block device, or the URI of an NBD export")
    {
        app->add_option(name, arguments.image, text)->required()->type_name("");
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

    void addPoint(CLI::App* app)
    {
        addValue(app, "--point", "NAME",
                 "The export shows the moment that has this name, for ever and no other, as that of a checkpoint: the "
                 "hashes are recorded as true at it",
                 [this](const std::string& text) { m_pair.first.points.point = parseName(text); });
    }

    void addPoints(CLI::App* app)
    {
        PointArguments& points = m_pair.first.points;
        addPoint(app);
        addValue(app, "--since", "NAME",
                 "Believe hashes that are recorded as true at this point, but for what has changed since by --bitmap",
                 [&points](const std::string& text) { points.since = parseName(text); });
        addValue(app, "--bitmap", "NAME", "The dirty bitmap of the export that was begun at --since",
                 [&points](const std::string& text) { points.bitmap = parseName(text); });
        app->get_option("--since")->needs("--bitmap")->excludes("--check")->excludes("--assume-unchanged");
        app->get_option("--bitmap")->needs("--since");
        app->get_option("--point")->excludes("--assume-unchanged");
    }

    void addBuild()
    {
        CLI::App* const app
            = add("build", "Make or complete the hash file of an image", "build disk.img --block-size 64K --jobs 2",
                  [this](const Common& common) { return build(m_pair.first, m_afterCrash, common); });
        addImage(app, m_pair.first, "IMAGE", "--hash-file");
        addGeometry(app);
        app->add_flag("--after-crash", m_afterCrash,
                      "First forget hashes of which a crash of the machine, or of a program that wrote them, may have "
                      "left a half");
        addTrust(app);
        addPoints(app);
        addWork(app);
    }

    void addInfo()
    {
        CLI::App* const app
            = add("info", "Show what a hash file holds; only reads it, so that it may be in use",
                  "info disk.img.hashes", [this](const Common& /*common*/) { return info(m_pair.first.image); });
        app->add_option("FILE", m_pair.first.image, "A hash file")->required()->type_name("");
    }

    void addHash()
    {
        CLI::App* const app = add(
            "hash", "Print the hash of an image or of a range of it; unknown block hashes are computed and stored",
            "hash disk.img --range 1GiB:64K",
            [this](const Common& common) { return hash(m_pair.first, m_range, common); });
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
        addPoints(app);
        addWork(app);
    }

    void addVerify()
    {
        CLI::App* const app = add("verify", "Check the known hashes against the image", "verify disk.img --sample 0.05",
                                  [this](const Common& common) { return verify(m_pair.first, m_verify, common); });
        addImage(app, m_pair.first, "IMAGE", "--hash-file");
        addValue(app, "--sample", "SHARE", "Check a random share of the image, above 0 and up to 1",
                 [this](const std::string& text) { m_verify.share = parseShare(text); });
        addValue(app, "--seed", "N", "Check the share that this number stands for", [this](const std::string& text) {
            m_verify.seed = parseWithin<std::uint64_t>(text, 0, std::numeric_limits<std::uint64_t>::max());
        });
        app->add_flag("--mark", m_verify.mark, "Make what is wrong unknown, for build to hash it again");
        addPoint(app);
        addWork(app);
    }

    void addDiff()
    {
        CLI::App* const app
            = add("diff", "List the byte ranges in which two images differ; unknown hashes are computed and stored",
                  "diff yesterday.img today.img --json", [this](const Common& common) { return diff(m_pair, common); });
        addRemote(app);
        addImage(app, m_pair.first, "A", "--hash-file-a", NEAR_OR_FAR);
        addImage(app, m_pair.second, "B", "--hash-file-b", NEAR_OR_FAR);
        addGeometry(app);
        addTrust(app);
        addWork(app);
    }

    void addSync()
    {
        CLI::App* const app
            = add("sync", "Make an image equal to another one, copying only what differs",
                  "sync today.img backup.img --verify", [this](const Common& common) { return runSync(common); });
        addRemote(app);
        addImage(app, m_pair.first, "SOURCE", "--source-hash-file", NEAR_OR_FAR);
        addImage(app, m_pair.second, "DEST", "--dest-hash-file", NEAR_OR_FAR);
        app->add_option("MORE", m_more, "After more than one SOURCE, at the end a directory: DIR or HOST:DIR/")
            ->type_name("");
        addGeometry(app);
        app->add_flag("--verify", m_sync.reread, "Read both images again afterwards and compare every byte");
        app->add_flag("--dry-run,-n", m_sync.isDryRun,
                      "Tell what would be done, and leave DEST alone; only hash files learn what had to be read")
            ->excludes("--verify");
        app->add_flag_callback(
            "--no-sparse", [this] { m_sync.isSparse = false; }, "Leave no holes in DEST: write zeros there");
        CLI::Option* const changes
            = app->add_option("--changes", m_changes.list,
                              "The list of all ranges of SOURCE that have changed since its hashes were true, as for "
                              "invalidate; - is standard input")
                  ->type_name("FILE");
        addListOptions(app, m_changes.options);
        app->get_option("--format")->needs(changes);
        app->get_option("--what")->needs(changes);
        app->get_option("--era-block-size")->needs(changes);
        addTrust(app);
        addPoints(app);
        changes->excludes("--check");
        changes->excludes("--point");
        changes->excludes("--since");
        addWork(app);
    }

    int runSync(const Common& common)
    {
        if (!m_changes.list.empty()) {
            m_sync.changes = m_changes;
        }
        std::vector<std::string> images = {m_pair.first.image, m_pair.second.image};
        images.insert(images.end(), m_more.begin(), m_more.end());
        const std::string destination = std::exchange(images.back(), "");
        images.pop_back();
        if (!isDirectory(destination)) {
            if (images.size() > 1) {
                throw CLI::ValidationError("behind several images comes a directory, as DIR or HOST:DIR/, not "
                                           + destination);
            }
            return report(sync(m_pair, m_sync, common));
        }
        const std::vector<PairArguments> pairs = pairsInto(destination, images, m_pair);
        if (pairs.size() == 1) {
            return report(sync(pairs[0], m_sync, common));
        }
        const bool isForOne = !m_changes.list.empty() || m_pair.first.points.areSome()
            || !m_pair.first.hashFile.path.empty() || !m_pair.second.hashFile.path.empty();
        if (isForOne) {
            throw CLI::ValidationError("--changes, points and the options for hash files take one SOURCE at a time");
        }
        return runSyncInto(pairs, common);
    }

    // The exit code is that of the worst.
    int runSyncInto(const std::vector<PairArguments>& pairs, const Common& common) const
    {
        int code = 0;
        const auto all = syncInto(pairs, m_sync, common, [&](const SyncedInto& each) {
            code = std::max(code,
                            !each.result                       ? complain(each.failure, ERROR)
                                : isGood(each.result->verdict) ? 0
                                                               : DIFFERS);
            if (!m_json) {
                std::cout << textOf(each) << std::flush;
            }
        });
        if (m_json) {
            std::cout << jsonOf(all);
        }
        return code;
    }

    void addRemote(CLI::App* app)
    {
        app->add_option("--rsh,-e", m_pair.remote.rsh, "The command that leads to the other machine; default: ssh")
            ->type_name("COMMAND");
        app->add_option("--remote-program", m_pair.remote.program, "This program there; default: kelvane-hash")
            ->type_name("PATH");
        app->add_flag("--compress,-z")
            ->each([this](const std::string& text) {
                m_pair.remote.compression = text == "true" ? 3 : parseWithin(text, 1U, 19U);
            })
            ->description("Compress data on its way, with =LEVEL from 1 (fast) to 19 (small)");
        addValue(app, "--bwlimit", "SIZE",
                 "Bytes per second at most that go to the other machine, or back, as they go: compressed ones, too",
                 [this](const std::string& text) { m_pair.remote.bytesPerSecond = parseSize(text); });
    }

    void addServe()
    {
        CLI::App* const app = add("serve", "Be the other machine's side of diff and sync, on standard input and output",
                                  "serve --root /srv/images --read-only",
                                  [this](const Common& common) { return serveOther(m_serve, common.reporter); });
        app->add_option("--root", m_serve.root, "Serve no image or hash file outside of this directory")
            ->type_name("DIR");
        app->add_flag("--read-only", m_serve.isReadOnly, "Write nothing");
    }

    static void addListOptions(CLI::App* app, ListOptions& options)
    {
        addChoice<ListFormat>(app, "--format", "HOW",
                              "lines (OFFSET + LENGTH), diff, nbdinfo, qemu-img, rbd, thin_delta or era_invalidate; "
                              "default: as it looks like",
                              {{"lines", ListFormat::Lines},
                               {"diff", ListFormat::Diff},
                               {"nbdinfo", ListFormat::Bitmap},
                               {"qemu-img", ListFormat::Map},
                               {"rbd", ListFormat::Rbd},
                               {"thin_delta", ListFormat::Thin},
                               {"era_invalidate", ListFormat::Era}},
                              options.format);
        addChoice<MapEntries>(app, "--what", "ENTRIES", "Of the list of qemu-img: data (default), zero or all",
                              {{"data", MapEntries::Data}, {"zero", MapEntries::Zero}, {"all", MapEntries::All}},
                              options.entries);
        addValue(app, "--era-block-size", "SIZE",
                 "How large the blocks of era_invalidate are, with a unit: 4M, or sectors as in the device's table, "
                 "8192s",
                 [&options](const std::string& text) { options.eraBlockSize = parseEraBlockSize(text); });
    }

    void addInvalidate()
    {
        CLI::App* const app = add("invalidate", "Forget the hashes of ranges that are known to have changed",
                                  "invalidate disk.img --from changes.txt", [this](const Common& common) {
                                      return invalidate(m_pair.first, m_invalidate, common);
                                  });
        addImage(app, m_pair.first, "IMAGE", "--hash-file");
        app->add_option("--from", m_invalidate.list, "The list of ranges; - is standard input")
            ->required()
            ->type_name("FILE");
        addListOptions(app, m_invalidate.options);
        addTrust(app);
        addWork(app);
    }

    CLI::App m_app;
    ProgressMode m_progress = ProgressMode::Automatic;
    unsigned m_jobs = 0;
    Cache m_cache = Cache::LeaveAsFound;
    Trust m_trust = Trust::Record;
    PairArguments m_pair;
    VerifyArguments m_verify;
    std::optional<Range> m_range;
    bool m_afterCrash = false;
    SyncArguments m_sync;
    std::vector<std::string> m_more; // images and a directory
    InvalidateArguments m_invalidate;
    InvalidateArguments m_changes; // for sync
    ServeArguments m_serve;
    bool m_json = false;
    std::function<int()> m_command;
};

int run(int argc, char** argv)
{
    CommandLine commandLine;
    const auto command = commandLine.parse(argc, argv);
    const int code = command ? command() : 0;
    return std::cout.flush() ? code : complain("standard output: cannot write", ERROR);
}

} // namespace

int main(int argc, char** argv)
{
    if (!occupyStandardDescriptors()) {
        return ERROR;
    }
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
