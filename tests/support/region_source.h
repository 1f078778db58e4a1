// A parent allocator for private arenas in tests: regions from one private
// reservation, committed on demand, rounded up to a chosen granule and handed out
// at increasing addresses, with optional gaps and a switch that refuses every
// request, so that every layout an arena builds over it is exact.
#pragma once

#include <sys/mman.h>

#include "utils/allocator.h"

namespace zotest {

class RegionSource : public Utils::Allocator {
public:
    explicit RegionSource(unsigned long granule = 1ul << 20, unsigned long reserve = 1ul << 30)
        : granule_(granule), reserved_(reserve) {
        void* p = mmap(nullptr, reserve, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        base_ = p == MAP_FAILED ? nullptr : static_cast<char*>(p);
    }
    ~RegionSource() {
        if (base_) munmap(base_, reserved_);
    }
    RegionSource(RegionSource const&) = delete;
    RegionSource& operator=(RegionSource const&) = delete;

    using Allocator::alloc;
    void* alloc(unsigned long size) override {
        ++requests;
        lastRequest = size;
        unsigned long want = (size + granule_ - 1) / granule_ * granule_;
        unsigned long start = cursor_ + gap_;
        if (!base_ || exhausted || start + want > reserved_) {
            last_ = 0;
            return nullptr;
        }
        if (mprotect(base_ + start, want, PROT_READ | PROT_WRITE) != 0) return nullptr;
        cursor_ = start + want;
        gap_ = 0;
        last_ = want;
        return base_ + start;
    }
    void free(void*) override {}
    // The size of the most recent region handed out (0 after a refusal).
    unsigned long size(void*) const override { return last_; }
    unsigned long allocatedMemory() const override { return 0; }
    unsigned long internalFree() const override { return 0; }

    // The next region starts `bytes` after the end of the previous one.
    void leaveGap(unsigned long bytes) { gap_ = bytes; }
    char* base() const { return base_; }

    // While set, every request is refused.
    bool exhausted = false;
    unsigned long requests = 0;
    unsigned long lastRequest = 0;

private:
    char* base_ = nullptr;
    unsigned long granule_;
    unsigned long reserved_;
    unsigned long cursor_ = 0;
    unsigned long gap_ = 0;
    unsigned long last_ = 0;
};

}  // namespace zotest
