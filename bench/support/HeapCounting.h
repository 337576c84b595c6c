// Counting replacements of the program's global operator new and delete:
// every block carries its requested size in a header, so that the live
// bytes and blocks of the process can be read at any moment (gLiveBytes,
// gLiveBlocks). hiredis allocates with malloc and is not counted.
//
// Include this header in exactly one translation unit of a program, after
// defining `bool HeapCounting()`: while it returns false (it must give the
// same answer for the whole run) the replacements pass straight to malloc
// and free, so that a second run can measure the resident set without the
// headers.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

constexpr size_t kHeader = 16;  // keeps the caller's block 16-byte aligned
std::atomic<long long> gLiveBytes{0};
std::atomic<long long> gLiveBlocks{0};

void* CountedAlloc(size_t size) {
    if (!HeapCounting()) return std::malloc(size);
    void* base = std::malloc(size + kHeader);
    if (base == nullptr) return nullptr;
    *static_cast<size_t*>(base) = size;
    gLiveBytes.fetch_add(static_cast<long long>(size), std::memory_order_relaxed);
    gLiveBlocks.fetch_add(1, std::memory_order_relaxed);
    return static_cast<char*>(base) + kHeader;
}

void CountedFree(void* p) {
    if (p == nullptr) return;
    if (!HeapCounting()) {
        std::free(p);
        return;
    }
    void* base = static_cast<char*>(p) - kHeader;
    gLiveBytes.fetch_sub(static_cast<long long>(*static_cast<size_t*>(base)),
                         std::memory_order_relaxed);
    gLiveBlocks.fetch_sub(1, std::memory_order_relaxed);
    std::free(base);
}

}  // namespace

void* operator new(size_t size) {
    void* p = CountedAlloc(size);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}
void* operator new[](size_t size) { return operator new(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return CountedAlloc(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return CountedAlloc(size); }
void operator delete(void* p) noexcept { CountedFree(p); }
void operator delete[](void* p) noexcept { CountedFree(p); }
void operator delete(void* p, size_t) noexcept { CountedFree(p); }
void operator delete[](void* p, size_t) noexcept { CountedFree(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { CountedFree(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { CountedFree(p); }
