#include "commands/Conclusions.h"

#include <algorithm>
#include <iterator>

namespace kelvane::tool {

namespace {

template <class Condition>
std::vector<Conclusions::OfImage> selected(const Conclusions& found, Condition condition)
{
    std::vector<Conclusions::OfImage> some;
    std::copy_if(found.all.begin(), found.all.end(), std::back_inserter(some),
                 [&](const Conclusions::OfImage& each) { return condition(each.conclusion); });
    return some;
}

} // namespace

Conclusions conclude(HashedImage& image, bool isAnsweredFor)
{
    return {{{image.image().path(), image.conclude(isAnsweredFor)}}};
}

Conclusions conclude(StartedSide& first, StartedSide& second)
{
    return {{{first.name(), first.conclude()}, {second.name(), second.conclude()}}};
}

std::vector<Conclusions::OfImage> changedOf(const Conclusions& found)
{
    return selected(found, [](const Conclusion& each) { return !each.isUnchanged; });
}

std::vector<Conclusions::OfImage> openForWritingOf(const Conclusions& found)
{
    return selected(found, [](const Conclusion& each) { return each.isOpenForWriting && !each.isAnsweredFor; });
}

bool areSure(const Conclusions& found)
{
    return changedOf(found).empty() && openForWritingOf(found).empty();
}

} // namespace kelvane::tool
