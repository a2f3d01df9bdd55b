#include "fade_schedule.h"

#include "core/numeric.h"

#include <algorithm>

namespace dsp {

namespace {

// Slope of a ramp from `from` to the action's target over its interval: the
// duration converted exactly, the quotient rounded to float.
float rampSlope(float from, const FadeAction& action) {
    return static_cast<float>((static_cast<double>(action.target) - static_cast<double>(from)) /
                              static_cast<double>(action.end - action.start));
}

} // namespace

void FadeSchedule::restart(float rate, float level) {
    // 0.001 as a float; the product and quotient in double, rounded once.
    msPerSample_ =
        static_cast<float>(1.0 / (static_cast<double>(0.001f) * static_cast<double>(rate)));
    startLevel_ = level;
    running_ = false;
    position_ = 0;
    initialised_ = true;
    // Actions kept across a reinitialisation still happen: the head ramps
    // from the new start level.
    if (!actions_.empty()) {
        updateHeadSlope();
    }
}

uint32_t FadeSchedule::timeToPosition(float seconds) const {
    return truncToUint32(static_cast<double>(seconds) *
                         (1000.0 / static_cast<double>(msPerSample_)));
}

bool FadeSchedule::setAction(float startSeconds, float endSeconds, float target) {
    return place(timeToPosition(startSeconds), timeToPosition(endSeconds), target, false);
}

bool FadeSchedule::removeRange(float startSeconds, float endSeconds) {
    return place(timeToPosition(startSeconds), timeToPosition(endSeconds), 0.0f, true);
}

void FadeSchedule::updateHeadSlope() {
    slope_ = rampSlope(startLevel_, actions_.front());
}

float FadeSchedule::levelReached(size_t index, uint32_t at) const {
    if (index == 0) {
        return headLevel(at);
    }
    // The slope this entry gets when it becomes the head.
    const float from = actions_[index - 1].target;
    return rampLevel(from, rampSlope(from, actions_[index]), actions_[index].start, at);
}

void FadeSchedule::completeHead() {
    running_ = false;
    startLevel_ = actions_.front().target;
    actions_.erase(actions_.begin());
    if (!actions_.empty()) {
        updateHeadSlope();
    }
}

bool FadeSchedule::makeRoom(size_t extra) {
    const size_t needed = actions_.size() + extra;
    if (needed <= actions_.capacity()) {
        return true;
    }
    // Doubling spares a long series of appends a copy of the schedule each.
    return tryReserve(actions_, std::max(needed, 2 * actions_.capacity()));
}

bool FadeSchedule::place(uint32_t start, uint32_t end, float target, bool removal) {
    if (!(position_ < start && position_ < end && start < end)) {
        return false;
    }
    if (actions_.empty() || start >= actions_.back().end) {
        return append(start, end, target, removal);
    }
    const Placement at = locate(start, end);
    if (!makeRoom((removal ? 0 : 1) + (at.splitLast ? 1 : 0))) {
        return false;
    }
    takeOver(at, FadeAction{start, end, target}, removal);
    return true;
}

// After everything scheduled, or into an empty schedule (a removal there
// changes nothing).
bool FadeSchedule::append(uint32_t start, uint32_t end, float target, bool removal) {
    if (removal) {
        return true;
    }
    if (!makeRoom(1)) {
        return false;
    }
    actions_.push_back(FadeAction{start, end, target});
    if (actions_.size() == 1) {
        updateHeadSlope();
    }
    return true;
}

// The new interval overlaps or precedes scheduled actions. P, the entry it
// follows, is the first entry ending after the new start when the interval
// begins within it, else that entry's predecessor (if any). B, the last entry
// starting before the new end, either ends inside the interval (dropped), or
// runs out of it and resumes at the new end, or is P itself and is split.
FadeSchedule::Placement FadeSchedule::locate(uint32_t start, uint32_t end) const {
    size_t a = 0;
    while (actions_[a].end <= start) {
        ++a; // stops before the last entry's end, which is above start
    }
    const size_t keep = start >= actions_[a].start ? a + 1 : a;
    size_t afterB = actions_.size();
    while (afterB > 0 && actions_[afterB - 1].start >= end) {
        --afterB;
    }
    Placement at{keep, afterB, false, false};
    if (afterB == 0 || end > actions_[afterB - 1].end) {
        return at;
    }
    const size_t b = afterB - 1;
    if (b + 1 == keep) {
        at.resume = keep;
        at.splitLast = end < actions_[b].end;
    } else {
        at.resume = end < actions_[b].end ? b : afterB; // a zero-length rest is dropped
        at.trimNext = at.resume == b;
    }
    return at;
}

void FadeSchedule::takeOver(const Placement& at, const FadeAction& action, bool removal) {
    FadeAction rest{};
    if (at.splitLast) {
        const FadeAction& split = actions_[at.keep - 1];
        rest = FadeAction{action.end, split.end, split.target};
    }
    if (at.trimNext) {
        actions_[at.resume].start = action.end;
    }
    bool headReplaced = at.keep == 0;
    if (at.keep > 0) {
        // P is cut short, or prolonged into a gap, at the new start.
        const size_t p = at.keep - 1;
        const float reached = levelReached(p, action.start);
        actions_[p].end = action.start;
        actions_[p].target = reached;
    }
    // Everything strictly between P and N goes; the new action (not for a
    // removal) and the rest of a split entry take its place.
    auto next = actions_.erase(actions_.begin() + at.keep, actions_.begin() + at.resume);
    if (at.splitLast) {
        next = actions_.insert(next, rest);
    }
    if (!removal) {
        actions_.insert(next, action);
    }
    // An entry cut down to zero length is dropped.
    if (at.keep > 0 && actions_[at.keep - 1].start == actions_[at.keep - 1].end) {
        headReplaced = headReplaced || at.keep == 1;
        actions_.erase(actions_.begin() + (at.keep - 1));
    }
    if (actions_.empty()) {
        running_ = false;
    } else if (headReplaced) {
        updateHeadSlope();
    }
}

} // namespace dsp
