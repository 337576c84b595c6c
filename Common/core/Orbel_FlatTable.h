// A hash table of word-sized keys in one array (open addressing, linear
// probing), for the application's registries of live nodes and of OIDs.
// Every node is entered in both at construction and looked up in the first
// at nearly every operation; the node-based std::unordered_map cost two heap
// blocks per node and a pointer chase per look-up, and its entries were more
// than twice the bytes. Private to the library; not thread-safe (the
// registry's mutexes guard it).
//
// `Traits` gives the key type, two key values that are never entered (an
// empty slot, and a slot whose entry was erased) and the hash.
#ifndef ORBEL_FLATTABLE_H
#define ORBEL_FLATTABLE_H

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Orbel {

template <class Traits, class Value>
class FlatTable {
public:
    using Key = typename Traits::Key;

    // The value entered under `key`, or null.
    Value* Find(Key key) {
        if (mSlots.empty()) return nullptr;
        for (size_t i = Home(key);; i = (i + 1) & mMask) {
            Slot& s = mSlots[i];
            if (s.key == key) return &s.value;
            if (s.key == Traits::kEmpty) return nullptr;
        }
    }

    // Enters `key` with `value`, or gives an entered key the new value.
    void Put(Key key, Value value) {
        // At most half full, erased slots counted: probes stay short and
        // always end at an empty slot.
        if ((mUsed + 1) * 2 > mSlots.size()) Rehash();
        // One probe: the key's own slot if it is entered, else the first
        // erased slot on the way, else the empty slot that ends the probe.
        Slot* free = nullptr;
        for (size_t i = Home(key);; i = (i + 1) & mMask) {
            Slot& s = mSlots[i];
            if (s.key == key) {
                s.value = std::move(value);
                return;
            }
            if (s.key == Traits::kErased) {
                if (free == nullptr) free = &s;
            } else if (s.key == Traits::kEmpty) {
                if (free == nullptr) {
                    free = &s;
                    ++mUsed;
                }
                break;
            }
        }
        free->key = key;
        free->value = std::move(value);
        ++mSize;
    }

    // False when `key` was not entered.
    bool Erase(Key key) {
        if (mSlots.empty()) return false;
        for (size_t i = Home(key);; i = (i + 1) & mMask) {
            Slot& s = mSlots[i];
            if (s.key == key) {
                s.key = Traits::kErased;
                s.value = Value();
                --mSize;
                return true;
            }
            if (s.key == Traits::kEmpty) return false;
        }
    }

    size_t Size() const { return mSize; }

private:
    struct Slot {
        Key key = Traits::kEmpty;
        Value value{};
    };

    size_t Home(Key key) const { return Traits::Hash(key) & mMask; }

    // Twice the live entries (at least 16 slots); erased slots are dropped.
    void Rehash() {
        size_t capacity = 16;
        while (capacity < (mSize + 1) * 4) capacity *= 2;
        std::vector<Slot> old;
        old.swap(mSlots);
        mSlots.resize(capacity);
        mMask = capacity - 1;
        mUsed = 0;
        mSize = 0;
        for (Slot& s : old) {
            if (s.key != Traits::kEmpty && s.key != Traits::kErased) {
                Put(s.key, std::move(s.value));
            }
        }
    }

    std::vector<Slot> mSlots;
    size_t mMask = 0;
    size_t mUsed = 0;  // slots not empty: entries and erased ones
    size_t mSize = 0;  // entries
};

// Spreads a word over the low bits (Fibonacci hashing, the high half of
// the product folded down).
inline size_t FlatTableMix(uint64_t x) {
    const uint64_t h = x * 0x9E3779B97F4A7C15ull;
    return static_cast<size_t>(h ^ (h >> 32));
}

}  // namespace Orbel

#endif  // ORBEL_FLATTABLE_H
