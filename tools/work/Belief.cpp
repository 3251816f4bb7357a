#include "work/Belief.h"

#include <string>

namespace kelvane::tool {

namespace {

constexpr const char* WRONG = "some of them were found to be wrong";

} // namespace

Belief::Belief(const Image& image, HashFile& hashFile, const Common& common)
    : m_image(image)
    , m_hashFile(hashFile)
    , m_common(common)
{
    if (!image.isMissing()) {
        look();
    }
    takeMoment({});
    if (!image.isMissing()) {
        readFromDiskWhereNeeded();
    }
}

void Belief::takeMoment(const Moment& moment)
{
    m_moment = moment;
    m_doubtOfRecord = doubtNow({});
    m_doubt = judge();
    m_holds = !m_doubt.isAny();
    m_isAssumed = m_common.trust == Trust::Everything && !m_hashFile.wasMade() && doubtNow(m_writers).isAny();
}

Doubt Belief::doubtNow(const Writers& writers) const
{
    return doubtAbout(m_hashFile.record(), m_hashFile.state(), m_state, writers, m_moment);
}

// What no record tells of was most likely left in order.
void Belief::readFromDiskWhereNeeded() const
{
    if (m_doubtOfRecord.isAboutMemory() || hasFailedUntold(m_hashFile.record(), m_state)) {
        if (!m_image.dropCache()) {
            throw Failure(m_image.path(),
                          "a part of it stays in memory, in use or never written, so that the disk cannot be read");
        }
    } else if (!m_hashFile.wasMade() && m_doubtOfRecord.because == Doubt::Because::NoRecord) {
        static_cast<void>(m_image.dropCache());
    }
}

Doubt Belief::judge()
{
    if (m_hashFile.wasMade() || m_common.trust == Trust::Everything) {
        return {};
    }
    if (m_common.trust == Trust::Nothing) {
        return {Doubt::Because::AskedFor, "that was asked for"};
    }
    return m_image.isMissing() ? m_doubtOfRecord : doubtNow(m_writers);
}

// What has begun before its state was taken is over when nobody is found then; what begins later changes its state.
void Belief::look()
{
    takeState();
    lookForWriters();
}

void Belief::lookForWriters()
{
    if (m_image.isWriting()) { // by this program
        return;
    }
    const Writers now = m_image.writers();
    m_writers.areSome = m_writers.areSome || now.areSome;
    m_writers.programs = now.programs.empty() ? m_writers.programs : now.programs;
    m_writers.doubt = now.doubt;
}

// After a flush that failed the next run reads everything from the disk.
template <class Operation>
auto Belief::flushing(Operation operation)
{
    const auto phase = m_common.reporter.begin("flush", std::nullopt);
    try {
        return operation();
    } catch (const FlushFailed&) {
        recordLostWrites();
        throw;
    }
}

void Belief::recordLostWrites()
{
    m_hasLostWrites = true;
    m_hashFile.dropCache();
    if (m_state.identity.traits.empty()) { // at the first look
        m_state.identity = m_image.identity();
        leaveRecordOfOther();
    }
    record(Record::Standing::FlushFailed);
}

bool Belief::hasLostWrites()
{
    if ((m_image.hasLostWrites() || m_hashFile.hasLostWrites()) && !m_hasLostWrites) {
        recordLostWrites();
    }
    return m_hasLostWrites;
}

ImageState Belief::currentState()
{
    return flushing([&] { return m_image.state(); });
}

void Belief::record(Record::Standing standing, const std::string& reason)
{
    if (!m_leavesRecord && !m_hashFile.isServedReadOnly()) {
        m_hashFile.write({standing, reason, m_state, {}, standing == Record::Standing::True ? m_moment.point : ""});
    }
}

bool Belief::isRecordOfOther() const
{
    const std::optional<Record>& record = m_hashFile.record();
    return record && ownerOf(*record, m_state.identity) != Owner::Same;
}

void Belief::leaveRecordOfOther()
{
    m_leavesRecord = isRecordOfOther();
}

void Belief::startAnew()
{
    m_holds = true;
    m_isAssumed = false;
    if (!m_hashFile.wasMade()) {
        m_doubt = {Doubt::Because::JustMade, "it was just made"};
    }
}

void Belief::contradict()
{
    m_holds = false;
    m_isContradicted = true;
    if (m_hashFile.isWritable()) {
        mark();
    } else {
        record(Record::Standing::Unproven, WRONG);
    }
}

void Belief::believeTold()
{
    m_holds = true;
    m_isAssumed = false;
    m_doubt = {};
}

void Belief::mark()
{
    const std::scoped_lock lock(m_marking);
    if (!m_isMarked && m_hashFile.isWritable()) {
        m_isDisturbed = m_isDisturbed || !m_hashFile.isUntouched();
        record(Record::Standing::Open);
        m_isMarked = true;
    }
}

// With the size that this run works with: if the image has another one already, it will never be found unchanged.
void Belief::takeState()
{
    m_state = currentState();
    m_state.marks.size = m_image.size();
}

void Belief::flushHashes()
{
    if (m_isMarked) {
        flushing([&] { m_hashFile.store().sync(); });
    }
}

// Why the hashes cannot be recorded as true; empty when they can.
std::string Belief::reasonAgainst(bool isUnchanged, bool isAnsweredFor) const
{
    if (m_isDisturbed) {
        return "the hash file was changed by something else while the last run used it";
    }
    if (!isUnchanged) {
        return "it was changed while the last run used it";
    }
    const bool needsEvidence = m_moment.point.empty();
    if (needsEvidence && (!m_state.doubt().empty() || !m_writers.doubt.empty())) {
        return m_state.doubt().empty() ? m_writers.doubt : m_state.doubt();
    }
    if (needsEvidence && m_writers.areSome && !isAnsweredFor) {
        return "others had it open for writing while the last run used it";
    }
    if (m_isAssumed) {
        return "the last run was to assume that they are true";
    }
    return m_holds ? "" : m_isContradicted ? WRONG : "the last run did not check them all";
}

Conclusion Belief::conclude(bool isAnsweredFor)
{
    const ImageState now = currentState();
    m_isDisturbed = m_isDisturbed || !(m_isMarked ? m_hashFile.isInPlace() : m_hashFile.isUntouched());
    lookForWriters();
    Conclusion found;
    found.isUnchanged = m_state.isSame(now) && !m_isDisturbed;
    found.isOpenForWriting = m_writers.areSome;
    found.writers = m_writers.programs;
    m_state.marks.doubt = now.marks.doubt; // whether a device counts is seen once it was read
    const std::string reason = reasonAgainst(found.isUnchanged, isAnsweredFor);
    const Doubt doubt = doubtNow({});
    const bool isKept = !hasLostWrites();
    found.isRecorded = isKept && reason.empty() && (m_hashFile.isWritable() || !doubt.isAny());
    const bool saysMore = m_isMarked || (reason.empty() && doubt.isAny());
    if (!isKept || !m_hashFile.isWritable() || !saysMore) {
        return found;
    }
    record(reason.empty() ? Record::Standing::True : Record::Standing::Unproven, reason);
    m_isMarked = false;
    return found;
}

ImageChange::ImageChange(Belief& belief)
    : m_belief(belief)
    , m_watch(belief.m_image.watch())
    , m_before(belief.currentState())
{
}

OwnChange ImageChange::end()
{
    const bool wasUnchanged = m_belief.m_state.isSame(m_before);
    m_belief.takeState();
    return {wasUnchanged, m_watch->wasAlone(m_before, m_belief.m_state)};
}

} // namespace kelvane::tool
