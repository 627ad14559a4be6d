#pragma once
/// Defines, for the source files that instantiate them, what `MemArray.hpp` declares for each listed element type.

#include <model/vantle/MemArray.hpp>

#define VANTLE_DEFINE_ARRAY(N, ...)                                                                                    \
    template class MemArray<N, __VA_ARGS__>;                                                                           \
    template class ReferencingMemArray<N, __VA_ARGS__>;
#define VANTLE_DEFINE_ARRAYS(...)                                                                                      \
    template class VantleType<__VA_ARGS__>;                                                                            \
    template class TypedArray<__VA_ARGS__>;                                                                            \
    template class MemArrayAllocator<__VA_ARGS__>;                                                                     \
    VANTLE_DEFINE_ARRAY(1, __VA_ARGS__)                                                                                \
    VANTLE_DEFINE_ARRAY(2, __VA_ARGS__)                                                                                \
    VANTLE_DEFINE_ARRAY(3, __VA_ARGS__)                                                                                \
    VANTLE_DEFINE_ARRAY(4, __VA_ARGS__)
