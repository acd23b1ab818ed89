#include "support/FailingAllocations.h"

#include <cstdlib>
#include <new>

namespace {

bool isWatching = false;
int failAt = 0;
bool persists = false;
int asked = 0;

bool isRefused() {
    if (!isWatching) return false;
    ++asked;
    return failAt != 0 && (persists ? asked >= failAt : asked == failAt);
}

}  // namespace

namespace korvane {

FailingAllocations::FailingAllocations(int at, Shortage shortage) {
    failAt = at;
    persists = shortage == Shortage::forGood;
    asked = 0;
    isWatching = true;
}

FailingAllocations::~FailingAllocations() { isWatching = false; }

int FailingAllocations::count() { return asked; }

}  // namespace korvane

void* operator new(std::size_t size) {
    if (isRefused()) throw std::bad_alloc();
    if (void* memory = std::malloc(size != 0 ? size : 1)) return memory;
    throw std::bad_alloc();
}

// Of the same family as the operators below, for the sanitizers' bookkeeping.
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return isRefused() ? nullptr : std::malloc(size != 0 ? size : 1);
}

void operator delete(void* memory) noexcept { std::free(memory); }

void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
