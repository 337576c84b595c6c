// Types and macros shared by every layer of the library: the result code
// eRtCode, the request method eReqMethod and the printf-format attribute.
//
// Any thread may include and use these; they hold no state.
#ifndef ORBEL_ORBELDEFS_H
#define ORBEL_ORBELDEFS_H

#include <sys/types.h>

#include <cstdint>
#include <ctime>

// The library and everything built against it agree on 64-bit time_t and
// off_t (-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64; the CMake target and the
// pkg-config file pass them on). On the 32-bit controller the C library's
// defaults are 32 bits: readdir fails on large inode numbers, dates after
// 2038 break, and a mixed build disagrees on the layout of every structure
// that holds them.
static_assert(sizeof(time_t) == 8 && sizeof(off_t) == 8,
              "build with -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64");

// Marks a printf-like function so that a wrong conversion, or a format that
// is not a literal, is a compile error. fmtIdx and argIdx count from 1; for a
// non-static member function the implicit `this` is argument 1.
#define ORBEL_PRINTF(fmtIdx, argIdx) __attribute__((format(printf, fmtIdx, argIdx)))

namespace Orbel {

// The library-wide result code. Zero is success; every other value names a
// reason. Functions that return eRtCode never throw.
enum eRtCode : int32_t {
    RT_SUCCESS = 0,
    RT_FAILURE = 2,        // no connection, null argument, null or wrong-typed reply
    RT_FIELD_MISSING = 3,  // a hash field that is missing or empty
    RT_NO_SUCH_KEY = 5,    // a key or list index that does not exist (nil reply)
    RT_BUSY = 9,           // a resource lock held by someone else
    RT_INVALID_ARG = 13,   // invalid argument
};

// The method of a request, also the index of a CRUD queue.
enum eReqMethod : int32_t {
    eReqCreate = 0,
    eReqRead = 1,
    eReqUpdate = 2,
    eReqDelete = 3,
    eReqAction = 4,
    eReqMethodNum = 5,
};

}  // namespace Orbel

#endif  // ORBEL_ORBELDEFS_H
