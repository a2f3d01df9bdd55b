#include "fade_ramp.h"

#include "core/lookup_tables.h"
#include "core/numeric.h"

#include <new>

namespace dsp {

FadeRamp::~FadeRamp() {
    clearSchedule();
}

float FadeRamp::levelAt(uint32_t at) const {
    // Evaluated wide and rounded once: the 32-bit sample distance times the
    // slope keeps its precision.
    return static_cast<float>(static_cast<double>(startLevel) +
                              static_cast<double>(at - head->start) * static_cast<double>(slope));
}

float FadeRamp::levelToGain(float levelDb) {
    // (level + 50) * 20.48 with both constants as floats, interpolated in double.
    return static_cast<float>(decibelTable().lookup(levelDb));
}

uint32_t FadeRamp::process(const float* in, float* out, uint32_t frames) {
    if (configured == 0) {
        return 0;
    }
    runSchedule(frames, [&](uint32_t n) { out[n] = in[n] * gain; });
    return 1;
}

void FadeRamp::initialise(uint32_t frames, float rate, float newLevel) {
    // 0.001 as a float; the product and quotient in double, rounded once.
    msPerSample =
        static_cast<float>(1.0 / (static_cast<double>(0.001f) * static_cast<double>(rate)));
    initialLevel = newLevel;
    startLevel = newLevel;
    level = newLevel;
    blockFrames = frames;
    gain = levelToGain(newLevel);
    active = 0;
    pending = 0;
    if (configured == 0) {
        head = nullptr;
        tail = nullptr;
    }
    position = 0;
    configured = 1;
    // Actions kept across a reinitialisation still happen: the schedule is
    // armed again and the head ramps from the new start level.
    if (head != nullptr) {
        pending = 1;
        updateHeadSlope();
    }
}

uint32_t FadeRamp::timeToPosition(float seconds) const {
    return truncToUint32(static_cast<double>(seconds) *
                         (1000.0 / static_cast<double>(msPerSample)));
}

bool FadeRamp::setAction(float startSeconds, float endSeconds, float target) {
    return place(timeToPosition(startSeconds), timeToPosition(endSeconds), target, false);
}

bool FadeRamp::removeRange(float startSeconds, float endSeconds) {
    return place(timeToPosition(startSeconds), timeToPosition(endSeconds), 0.0f, true);
}

void FadeRamp::clearSchedule() {
    while (head != nullptr) {
        FadeAction* next = head->next;
        delete head;
        head = next;
    }
    tail = nullptr;
}

void FadeRamp::updateHeadSlope() {
    // The duration converted exactly, the quotient rounded to float.
    slope =
        static_cast<float>((static_cast<double>(head->target) - static_cast<double>(startLevel)) /
                           static_cast<double>(head->end - head->start));
}

float FadeRamp::levelReached(const FadeAction* entry, uint32_t at) const {
    if (entry == head) {
        return levelAt(at);
    }
    // The slope this entry gets when it becomes the head.
    float from = entry->prev->target;
    float entrySlope =
        static_cast<float>((static_cast<double>(entry->target) - static_cast<double>(from)) /
                           static_cast<double>(entry->end - entry->start));
    return static_cast<float>(static_cast<double>(from) + static_cast<double>(at - entry->start) *
                                                              static_cast<double>(entrySlope));
}

void FadeRamp::unlink(FadeAction* entry) {
    if (entry->prev != nullptr) {
        entry->prev->next = entry->next;
    } else {
        head = entry->next;
    }
    if (entry->next != nullptr) {
        entry->next->prev = entry->prev;
    } else {
        tail = entry->prev;
    }
    entry->next = nullptr;
    entry->prev = nullptr;
}

void FadeRamp::completeHead() {
    active = 0;
    startLevel = head->target;
    FadeAction* done = head;
    unlink(done);
    delete done;
    if (head != nullptr) {
        updateHeadSlope();
    } else {
        pending = 0;
    }
}

bool FadeRamp::place(uint32_t start, uint32_t end, float target, bool removal) {
    if (!(position < start && position < end && start < end)) {
        return false;
    }
    if (head == nullptr) {
        if (removal) {
            pending = 0;
            return true;
        }
        FadeAction* action = new (std::nothrow) FadeAction;
        if (action == nullptr) {
            return false;
        }
        action->start = start;
        action->end = end;
        action->target = target;
        head = action;
        tail = action;
        updateHeadSlope();
        pending = 1;
        return true;
    }
    if (start >= tail->end) {
        // After everything scheduled: appended (a removal there changes nothing).
        if (removal) {
            return true;
        }
        FadeAction* action = new (std::nothrow) FadeAction;
        if (action == nullptr) {
            return false;
        }
        action->start = start;
        action->end = end;
        action->target = target;
        action->prev = tail;
        tail->next = action;
        tail = action;
        return true;
    }

    // The new interval overlaps or precedes scheduled actions. P: the entry
    // after which it goes (cut short or prolonged to the new start); N: the
    // entry before which it goes. Everything strictly between is dropped.
    FadeAction* a = head;
    while (a->end <= start) {
        a = a->next; // stops before the tail's end, which is above start
    }
    FadeAction* p = start >= a->start ? a : a->prev;
    FadeAction* b = tail;
    while (b != nullptr && b->start >= end) {
        b = b->prev;
    }

    // Take every allocation before changing anything.
    FadeAction* action = new (std::nothrow) FadeAction;
    if (action == nullptr) {
        return false;
    }
    action->start = start;
    action->end = end;
    action->target = target;
    FadeAction* remainder = nullptr;
    bool split = b != nullptr && b == p && end <= b->end;
    if (split && end < b->end) {
        // The rest of the one action the new interval lies in.
        remainder = new (std::nothrow) FadeAction;
        if (remainder == nullptr) {
            delete action;
            return false;
        }
        remainder->start = end;
        remainder->end = b->end;
        remainder->target = b->target;
    }

    FadeAction* n;
    if (split) {
        n = p->next;
    } else if (b != nullptr && end <= b->end) {
        b->start = end;
        n = end < b->end ? b : b->next; // a zero-length rest is dropped
    } else {
        n = b != nullptr ? b->next : head;
    }

    bool headReplaced = p == nullptr;
    FadeAction* before = p;
    if (p != nullptr) {
        float reached = levelReached(p, start);
        p->end = start;
        p->target = reached;
    }
    // Drop everything strictly between P and N.
    FadeAction* doomed = p != nullptr ? p->next : head;
    while (doomed != n) {
        FadeAction* next = doomed->next;
        delete doomed;
        doomed = next;
    }
    // Link P, the new action, the remainder and N.
    FadeAction* last = remainder != nullptr ? remainder : action;
    if (remainder != nullptr) {
        action->next = remainder;
        remainder->prev = action;
    }
    action->prev = before;
    if (before != nullptr) {
        before->next = action;
    } else {
        head = action;
    }
    last->next = n;
    if (n != nullptr) {
        n->prev = last;
    } else {
        tail = last;
    }
    // An entry cut down to zero length is dropped.
    if (p != nullptr && p->start == p->end) {
        headReplaced = headReplaced || p == head;
        unlink(p);
        delete p;
    }
    if (removal) {
        headReplaced = headReplaced || action == head;
        unlink(action);
        delete action;
    }
    if (head == nullptr) {
        pending = 0;
        active = 0;
    } else {
        pending = 1;
        if (headReplaced) {
            updateHeadSlope();
        }
    }
    return true;
}

} // namespace dsp
