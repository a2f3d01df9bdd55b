#include "dsp_chain.h"

#include "sample_convert.h"

#include <new>

namespace dsp {

DspChain::~DspChain() {
    clear();
}

bool DspChain::contains(const DspProcessor* processor) const {
    for (const ChainNode* node = head; node != nullptr; node = node->next) {
        if (node->handle == processor) {
            return true;
        }
    }
    return false;
}

uint32_t DspChain::add(DspProcessor* processor, uint32_t sortKey) {
    // A processor held twice would be destroyed twice.
    if (processor == nullptr || processor->ready != 1 || contains(processor)) {
        return count;
    }
    ChainNode* node = new (std::nothrow) ChainNode;
    if (node == nullptr) {
        return count;
    }
    node->handle = processor;
    node->order = sortKey;
    if (head == nullptr) {
        head = tail = node;
    } else {
        // Behind the last node whose key is not greater, so equal keys keep
        // the order in which they were added.
        ChainNode* before = tail;
        while (before != nullptr && before->order > sortKey) {
            before = before->prev;
        }
        if (before != nullptr) {
            node->prev = before;
            node->next = before->next;
            if (before->next != nullptr) {
                before->next->prev = node;
            } else {
                tail = node;
            }
            before->next = node;
        } else {
            node->next = head;
            head->prev = node;
            head = node;
        }
    }
    propagate();
    return ++count;
}

void DspChain::adjust(uint32_t sourceFrames, uint32_t sourceChannels, uint32_t sourceRate) {
    frames = sourceFrames;
    channels = sourceChannels;
    rate = sourceRate;
    propagate();
}

void DspChain::propagate() {
    uint32_t wantFrames = frames;
    uint32_t wantChannels = channels;
    uint32_t wantRate = rate;
    for (ChainNode* node = head; node != nullptr; node = node->next) {
        DspProcessor* p = node->handle;
        // A processor left without buffers by an earlier configure is retried.
        if (p->ready != 1 || p->inFrames != wantFrames || p->inChannels != wantChannels ||
            p->inRate != wantRate) {
            p->configure(wantFrames, wantChannels, wantRate);
        }
        wantFrames = p->outFrames;
        wantChannels = p->outChannels;
        wantRate = p->outRate;
    }
}

bool DspChain::allReady() const {
    for (const ChainNode* node = head; node != nullptr; node = node->next) {
        if (node->handle->ready != 1 || node->handle->inFrames == 0) {
            return false;
        }
    }
    return true;
}

uint32_t DspChain::send(const int16_t* src, int16_t* dst, uint32_t bytes) {
    if (head == nullptr) {
        passThroughCopy(src, dst, bytes);
        return bytes;
    }
    if (!allReady()) {
        return 0;
    }
    DspProcessor* first = head->handle;
    DspProcessor* last = tail->handle;
    const uint32_t frameBytes = 2 * first->inChannels;
    uint32_t frames = bytes / frameBytes;
    uint32_t written = 0;
    // Blocks larger than the configured size go through in pieces.
    while (frames > 0) {
        const uint32_t piece = frames < first->inFrames ? frames : first->inFrames;
        convertToFloat(src, piece * frameBytes, first->work[0], first->work[1], first->inChannels);
        uint32_t n = first->processChained(first->work[0], first->work[1], first->work[2],
                                           first->work[3], piece);
        for (ChainNode* node = head->next; node != nullptr; node = node->next) {
            DspProcessor* r = node->prev->handle;
            DspProcessor* q = node->handle;
            // Never hand a processor more frames than its buffers hold.
            if (n > q->inFrames) {
                n = q->inFrames;
            }
            n = q->processChained(r->work[2], r->work[3], q->work[2], q->work[3], n);
        }
        const float* right = last->inChannels == 1 ? nullptr : last->work[3];
        convertToInt16(last->work[2], right, n, dst, last->outChannels);
        dst += n * last->outChannels;
        written += n * 2 * last->outChannels;
        src += piece * first->inChannels;
        frames -= piece;
    }
    return written;
}

uint32_t DspChain::dstRate() const {
    return tail == nullptr ? rate : tail->handle->outRate;
}

uint32_t DspChain::dstChannels() const {
    return tail == nullptr ? channels : tail->handle->outChannels;
}

uint32_t DspChain::dstSize(uint32_t bytes) const {
    for (const ChainNode* node = head; node != nullptr; node = node->next) {
        bytes = node->handle->getDstSize(bytes);
    }
    return bytes;
}

DspProcessor* DspChain::handleAt(uint32_t index) const {
    const ChainNode* node = head;
    for (uint32_t i = 0; i < index && node != nullptr; ++i) {
        node = node->next;
    }
    return node == nullptr ? nullptr : node->handle;
}

void DspChain::clear() {
    ChainNode* node = head;
    while (node != nullptr) {
        ChainNode* next = node->next;
        destroyProcessor(node->handle);
        delete node;
        node = next;
    }
    head = tail = nullptr;
    count = 0;
}

} // namespace dsp
