#include "graph/QueueSlot.h"

#include <new>

#include "graph/GraphLock.h"

namespace lofter {

namespace {

struct FreeBlock {
    FreeBlock* next;
};

FreeBlock* freeBlocks = nullptr;
std::size_t slots = 0;
std::size_t blocks = 0;  // free or taken

void AddFree(void* memory) {
    freeBlocks = new (memory) FreeBlock{freeBlocks};
}

void* TakeFree() {
    FreeBlock* const block = freeBlocks;
    freeBlocks = block->next;
    return block;
}

// A slot may go while its memory is taken, which is then freed when it comes back.
void FreeSurplus() {
    while (blocks > slots && freeBlocks != nullptr) {
        ::operator delete(TakeFree());
        --blocks;
    }
}

}  // namespace

QueueSlot::QueueSlot() {
    void* const memory = ::operator new(kSize);
    GraphLock lock;
    AddFree(memory);
    ++blocks;
    ++slots;
}

QueueSlot::~QueueSlot() {
    GraphLock lock;
    --slots;
    FreeSurplus();
}

void* QueueSlot::Take() {
    GraphLock lock;
    if (freeBlocks != nullptr) {
        return TakeFree();
    }
    void* const memory = ::operator new(kSize);
    ++blocks;
    return memory;
}

void QueueSlot::GiveBack(void* memory) noexcept {
    GraphLock lock;
    AddFree(memory);
    FreeSurplus();
}

}  // namespace lofter
