// A grid at twice the resolution, computed only where somebody looks.
#include <baseop/ResampleRegularGrid.hpp>
#include <model/Model.hpp>

#include <cstdio>

using namespace Vantle;

int main() {
    const BundlePtr bundle = BundlePtr::create();
    const auto source = (*bundle[0.0])["source"], finer = (*bundle[0.0])["finer"];
    RegularGrid3D grid(source);
    int computed = 0;
    const auto height = Hestra::makeRef<Field>(grid.positions()->getFragmentIDCollection()).strong();
    for (int b = 0; b < 3; ++b) {
        const auto positions = Hestra::makeRef<UniformCartesianArray>(
            Orvix::BoundingBox({double(b), 0, 0}, {double(b + 1), 1, 1}), MultiIndex<3>(9, 9, 9));
        const auto id = grid.addBlock("block" + std::to_string(b), positions.strong());
        // The source itself is lazy: its arrays are made when they are first needed.
        height->createCreator(
            [&computed](const Hestra::WeakPtr<CreativeArrayBase>& creator) -> Hestra::StrongPtr<MemBase> {
                ++computed;
                const auto array = MemArray<3, double>::create({9, 9, 9}, creator);
                for (index_t k = 0; k < array->nElements(); ++k) array->element(k) = double(k / 81);
                return array.strong();
            },
            VantleTypeIndex(typeid(double)), MultiIndex<3>(9, 9, 9), id);
    }
    grid.representation()->setField("height", height);

    if (!ResampleRegularGrid3D(*finer, *source, "finer", {2.0, 2.0, 2.0})) return 1;
    const auto resampled = (*finer)("height");
    const auto id = resampled->getFragmentID("block1");
    std::printf("known without computing: size %s, arrays made so far: %d\n",
                to_string(getSize(*resampled->getCreator(id))).c_str(), computed);
    const auto array = Hestra::dynamicCast<MemArray<3, double>>(resampled->getData(id));
    std::printf("height between nodes 3 and 4: %g, arrays made: %d of 3\n", (*array)(0, 0, 7), computed);
    return (*array)(0, 0, 7) == 3.5 && computed == 1 ? 0 : 1;
}
