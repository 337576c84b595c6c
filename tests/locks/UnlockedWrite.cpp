// Compiled by LockCheckSelfTest with the project's warnings: the write below
// must be refused, or the clang build no longer checks the locks.
#include "Orbel_Mutex.h"

struct Counter {
    Orbel::Mutex mutex;
    int value GUARDED_BY(mutex) = 0;
    void Bump() { ++value; }
};
