#pragma once
// Plain numeric types and enumerations shared by the host, the plug-in and backends.
#include <cstdint>

namespace ML {

using u8 = std::uint8_t;
using i8 = std::int8_t;
using u16 = std::uint16_t;
using i16 = std::int16_t;
using u32 = std::uint32_t;
using i32 = std::int32_t;
using u64 = std::uint64_t;
using i64 = std::int64_t;

// Element types of images and tensors. Images may only be U8, F16 or F32.
enum DataType : u32 {
    U8 = 0,
    I8 = 1,
    U16 = 2,
    I16 = 3,
    U32 = 4,
    I32 = 5,
    U64 = 6,
    I64 = 7,
    F16 = 8,
    F32 = 9,
    SIZE_T = 10,  // the 64-bit unsigned size type
};

// Result codes shared by mlMain, host results and backend results.
enum Status : i32 {
    STATUS_OK = 0,
    STATUS_CANCELLED = 1,
    STATUS_HOST = 2,
    STATUS_BACKEND_INTERNAL = 3,
    STATUS_OTHER = 4,
};

}  // namespace ML
