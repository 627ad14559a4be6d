#include <baseop/TreeCellMapper.hpp>
#include <baseop/UniGridMapper.hpp>
#include <baseop/detail/MapperArrays.hpp>
#include <model/vantle/ArrayInstantiation.hpp>

namespace Vantle {

VANTLE_DEFINE_ARRAYS(Hestra::StrongPtr<UniGridMapper, UniGridMapper>)
VANTLE_DEFINE_ARRAYS(Hestra::StrongPtr<TreeCellMapper, TreeCellMapper>)

namespace {

template<class Mapper>
bool registerHandle() {
    MemArrayAllocator<Hestra::StrongPtr<Mapper, Mapper>>::registerMe();
    return true;
}
[[maybe_unused]] const bool mappersRegistered = registerHandle<UniGridMapper>() && registerHandle<TreeCellMapper>();

} // namespace

} // namespace Vantle
