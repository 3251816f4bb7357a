#include <nlohmann/json.hpp>

#include "base/Text.h"
#include "commands/Results.h"

namespace kelvane::tool {

namespace {

using Json = nlohmann::ordered_json;

std::string dumped(const Json& json)
{
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n"; // names need not be UTF-8
}

double seconds(std::chrono::nanoseconds time)
{
    return std::chrono::duration<double>(time).count();
}

Json changedMeanwhile(const Conclusions& found)
{
    Json names = Json::array();
    for (const Conclusions::OfImage& each : changedOf(found)) {
        names.push_back(each.image);
    }
    return names;
}

Json freshness(const Conclusions& found)
{
    Json all = Json::array();
    for (const auto& [image, conclusion] : found.all) {
        Json writers = Json::array();
        for (const Program& program : conclusion.writers) {
            writers.push_back({{"pid", program.process}, {"command", program.command}});
        }
        all.push_back({{"image", image},
                       {"believed", conclusion.isBelieved},
                       {"doubt", conclusion.doubt},
                       {"checkedBlocks", conclusion.checkedBlocks},
                       {"repairedBlocks", conclusion.repairedBlocks},
                       {"openForWriting", conclusion.isOpenForWriting},
                       {"writers", writers},
                       {"recorded", conclusion.isRecorded}});
    }
    return all.size() == 1 ? all[0] : all;
}

Json listOf(const std::vector<Range>& ranges)
{
    Json list = Json::array();
    for (const Range& range : ranges) {
        list.push_back({{"offset", range.offset}, {"length", range.length}});
    }
    return list;
}

template <class Value>
void addIfAny(Json& json, const char* name, const std::optional<Value>& value)
{
    if (value) {
        json[name] = *value;
    }
}

void addIfAny(Json& json, const std::optional<PairTraffic>& traffic)
{
    if (traffic) {
        json["line"] = {{"bytesSent", traffic->line.bytesSent},
                        {"bytesReceived", traffic->line.bytesReceived},
                        {"roundTrips", traffic->line.roundTrips}};
    }
}

Json jsonOf(const std::optional<InfoResult::Recorded>& recorded)
{
    if (!recorded) {
        return nullptr;
    }
    const Record& record = recorded->record;
    Json json = {{"clean", record.standing == Record::Standing::True},
                 {"image", record.image.identity.path},
                 {"size", record.image.marks.size},
                 {"marks", record.image.marks.traits}};
    if (!record.point.empty()) {
        json["point"] = record.point;
    }
    return json;
}

// What another command would find now.
Json freshness(const std::optional<InfoResult::Recorded>& recorded)
{
    if (!recorded) {
        return {{"image", nullptr}, {"believed", false}, {"doubt", "there is no record"}};
    }
    const auto& [record, doubt] = *recorded;
    return {{"image", record.image.identity.path}, {"believed", !doubt.isAny()}, {"doubt", doubt.text}};
}

Json treeOf(const SyncResult& result)
{
    Json changed = changedMeanwhile(result.found);
    if (result.wasChangedByOthers && changed.empty()) {
        changed.push_back(result.destination);
    }
    Json json = {{"verdict", nameOf(result.verdict)},
                 {"equal", isGood(result.verdict)},
                 {"bytesCompared", result.comparison.bytes},
                 {"bytesCopied", totalLength(result.comparison.differing)},
                 {"ranges", result.comparison.differing.size()},
                 {"comparisons", result.comparison.comparisons},
                 {"bytesRead", result.comparison.bytesRead},
                 {"seconds", seconds(result.time)},
                 {"verified", result.isReread},
                 {"freshness", freshness(result.found)},
                 {"changedMeanwhile", changed}};
    if (result.isForeseen) {
        json["dryRun"] = true;
    }
    if (result.told) {
        json["told"] = {{"bytes", result.told->bytes}, {"ranges", result.told->ranges}};
    }
    if (result.wasMade) {
        json["formerSize"] = nullptr;
    }
    addIfAny(json, "formerSize", result.formerSize);
    addIfAny(json, "firstDifference", result.firstDifference);
    addIfAny(json, result.traffic);
    return json;
}

} // namespace

std::string jsonOf(const BuildResult& result)
{
    Json json = {{"verdict", nameOf(result.verdict)},
                 {"hashFile", result.hashFile},
                 {"created", result.wasMade},
                 {"blockSize", result.blockSize},
                 {"knownBlocks", result.knownBlocks()},
                 {"bytesRead", result.traffic.read},
                 {"bytesOfHoles", result.traffic.holes},
                 {"bytesKnownBefore", result.traffic.left},
                 {"seconds", seconds(result.time)},
                 {"freshness", freshness(result.found)},
                 {"changedMeanwhile", Json::array()}};
    if (!result.wasUnchanged) {
        json["changedMeanwhile"].push_back(result.image);
    }
    addIfAny(json, "adaptedFrom", result.formerSize);
    addIfAny(json, "tornEntries", result.tornEntries);
    return dumped(json);
}

std::string jsonOf(const DiffResult& result)
{
    Json json = {{"verdict", nameOf(result.verdict)},      {"equal", isGood(result.verdict)},
                 {"bytes", totalLength(result.differing)}, {"comparisons", result.comparisons},
                 {"bytesRead", result.bytesRead},          {"sizes", {result.firstSize, result.secondSize}},
                 {"freshness", freshness(result.found)},   {"changedMeanwhile", changedMeanwhile(result.found)},
                 {"differing", listOf(result.differing)}};
    addIfAny(json, result.traffic);
    return dumped(json);
}

std::string jsonOf(const HashResult& result)
{
    return dumped({{"verdict", nameOf(result.verdict)},
                   {"image", result.image},
                   {"hash", hexadecimal(result.hash)},
                   {"offset", result.onDevice.offset},
                   {"length", result.onDevice.length},
                   {"blockSize", result.blockSize},
                   {"bytesRead", result.bytesRead},
                   {"freshness", freshness(result.found)},
                   {"changedMeanwhile", changedMeanwhile(result.found)}});
}

std::string jsonOf(const InfoResult& result)
{
    return dumped({{"verdict", nameOf(result.verdict)},
                   {"hashFile", result.hashFile},
                   {"magicNumber", result.magicNumber},
                   {"version", result.version},
                   {"dataRegionOffset", result.entriesStart},
                   {"blockSize", result.geometry.blockSize},
                   {"targetEnd", result.geometry.targetEnd()},
                   {"partitionOffset", result.geometry.partitionOffset},
                   {"targetSize", result.geometry.targetSize},
                   {"hashId", static_cast<int>(result.hashFunction)},
                   {"wholeBlocks", result.wholeBlocks()},
                   {"knownBlocks", result.knownBlocks()},
                   {"unknownBlocks", result.unknownBlocks},
                   {"partialBlockBytes", result.partialBlock()},
                   {"fileSize", result.fileSize},
                   {"sizeOnDisk", result.sizeOnDisk},
                   {"map", result.map},
                   {"record", jsonOf(result.recorded)},
                   {"freshness", freshness(result.recorded)}});
}

std::string jsonOf(const InvalidateResult& result)
{
    return dumped({{"verdict", nameOf(result.verdict)},
                   {"hashFile", result.hashFile},
                   {"bytes", result.forgotten.bytes},
                   {"ranges", result.forgotten.ranges},
                   {"freshness", freshness(result.found)},
                   {"changedMeanwhile", changedMeanwhile(result.found)}});
}

std::string jsonOf(const SyncResult& result)
{
    return dumped(treeOf(result));
}

std::string jsonOf(const std::vector<SyncedInto>& all)
{
    Json list = Json::array();
    for (const SyncedInto& each : all) {
        Json json = {{"source", each.source}, {"destination", each.destination}};
        each.result ? json.update(treeOf(*each.result)) : json.update({{"error", each.failure}});
        list.push_back(json);
    }
    return dumped(list);
}

std::string jsonOf(const VerifyResult& result)
{
    Json json = {{"verdict", nameOf(result.verdict)},    {"image", result.image},
                 {"good", isGood(result.verdict)},       {"blocksChecked", result.checkedBlocks},
                 {"badBlocks", result.wrongBlocks},      {"marked", result.isMarked},
                 {"recordedSize", result.recordedSize},  {"imageSize", result.imageSize},
                 {"freshness", freshness(result.found)}, {"changedMeanwhile", changedMeanwhile(result.found)},
                 {"bad", listOf(result.wrong)}};
    addIfAny(json, "seed", result.seed);
    return dumped(json);
}

} // namespace kelvane::tool
