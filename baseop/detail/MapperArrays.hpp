#pragma once
/// Declares the arrays that hold mappers, one for each fragment of a grid; their element types are registered when the
/// library is loaded.

#include <baseop/BaseOpExport.hpp>
#include <model/vantle/MemArray.hpp>

namespace Vantle {

#define VANTLE_DECLARE_MAPPER_ARRAY(N, ...)                                                                            \
    extern template class VANTLE_BASEOP_API MemArray<N, __VA_ARGS__>;                                                  \
    extern template class VANTLE_BASEOP_API ReferencingMemArray<N, __VA_ARGS__>;
#define VANTLE_DECLARE_MAPPER_ARRAYS(...)                                                                              \
    extern template class VANTLE_BASEOP_API VantleType<__VA_ARGS__>;                                                   \
    extern template class VANTLE_BASEOP_API TypedArray<__VA_ARGS__>;                                                   \
    extern template class VANTLE_BASEOP_API MemArrayAllocator<__VA_ARGS__>;                                            \
    VANTLE_DECLARE_MAPPER_ARRAY(1, __VA_ARGS__)                                                                        \
    VANTLE_DECLARE_MAPPER_ARRAY(2, __VA_ARGS__)                                                                        \
    VANTLE_DECLARE_MAPPER_ARRAY(3, __VA_ARGS__)                                                                        \
    VANTLE_DECLARE_MAPPER_ARRAY(4, __VA_ARGS__)
VANTLE_DECLARE_MAPPER_ARRAYS(Hestra::StrongPtr<UniGridMapper, UniGridMapper>)
VANTLE_DECLARE_MAPPER_ARRAYS(Hestra::StrongPtr<TreeCellMapper, TreeCellMapper>)
#undef VANTLE_DECLARE_MAPPER_ARRAYS
#undef VANTLE_DECLARE_MAPPER_ARRAY

} // namespace Vantle
