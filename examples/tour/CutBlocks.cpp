#include "Tour.hpp"

#include <dataset/Files.hpp>

#include <algorithm>
#include <random>
#include <utility>

namespace tour {

using namespace Vantle;
using Hestra::StrongPtr;

namespace {

// Vertices of a block between two corners, both included, and how its axes are turned.
struct Piece {
    std::string block;
    MultiIndex<3> low, high;
    int axis[3] = {0, 1, 2};
    bool isBackward[3] = {};

    [[nodiscard]] index_t cells(int d) const { return high[d] - low[d]; }
    [[nodiscard]] MultiIndex<3> size() const { return {cells(axis[0]) + 1, cells(axis[1]) + 1, cells(axis[2]) + 1}; }
    // Of pieces that are not turned yet.
    [[nodiscard]] int longest() const {
        return *std::max_element(axis, axis + 3, [&](int a, int b) { return cells(a) < cells(b); });
    }
    // 0 where there is nothing to cut.
    [[nodiscard]] index_t weight() const {
        return cells(longest()) < 2 ? 0 : std::max<index_t>(1, cells(0) * cells(1) * cells(2));
    }

    // What an array of the whole block has here, in the order of the turned axes.
    template<class T>
    StrongPtr<MemBase> of(const MemArray<3, T>& values, const Hestra::WeakPtr<CreativeArrayBase>& creator) const {
        std::vector<T> taken;
        MultiIndex<3> n, at;
        do {
            for (int d = 0; d < 3; ++d) at[axis[d]] = isBackward[d] ? high[axis[d]] - n[d] : low[axis[d]] + n[d];
            taken.push_back(values[at]);
        } while (n.advance(size()));
        return MemArray<3, T>::makeMemArray(std::move(taken), size(), creator);
    }
};

std::vector<Piece> cutPieces(const DataSet& whole, std::size_t count) {
    std::vector<Piece> pieces;
    for (const BlockInfo& block : whole.blocks()) pieces.push_back({block.name, {}, block.size - 1});
    while (pieces.size() < count) {
        const auto largest = std::max_element(pieces.begin(), pieces.end(),
                                              [](const Piece& a, const Piece& b) { return a.weight() < b.weight(); });
        if (largest->weight() == 0) break;
        const int axis = largest->longest();
        Piece upper = *largest;
        upper.low[axis] = largest->high[axis] = (largest->low[axis] + largest->high[axis]) / 2;
        pieces.insert(largest + 1, upper);
    }
    std::mt19937 random(1);
    for (Piece& piece : pieces) {
        for (const unsigned last : {2u, 1u}) std::swap(piece.axis[last], piece.axis[random() % (last + 1)]);
        for (bool& backward : piece.isBackward) backward = random() % 2 == 1;
    }
    return pieces;
}

} // namespace

DataSet cutBlocks(const DataSet& whole, std::size_t count) {
    using Elements = TypeList<double, float, Point, Vector, int>;
    const auto vertices = whole.grid()->getCartesianRepresentation();
    DataSet cut(whole.time());
    std::size_t number = 0;
    for (const Piece& piece : cutPieces(whole, count)) {
        const std::string name = "block" + std::to_string(++number);
        const auto creator = [&](const StrongPtr<Field>& field) -> StrongPtr<CreativeArrayBase> {
            const auto id = field->getFragmentID(piece.block);
            const auto read = [whole, field, id, piece](const Hestra::WeakPtr<CreativeArrayBase>& made) {
                StrongPtr<MemBase> result;
                withMemArray<3>(Elements(), readData(*field, id),
                                [&](const auto& values) { result = piece.of(values, made); });
                return result;
            };
            const VantleTypeIndex type = field->getCreator(id)->elementType();
            return Hestra::makeRef<FileArray>(read, type, piece.size(), cut.cache());
        };
        cut.addBlock(name, creator(vertices->Positions()));
        for (const FieldInfo& field : whole.fields())
            if (field.blocks == whole.blocks().size())
                cut.setField(field.name, name, creator(vertices->findField(field.name)));
        if (const auto mask = vertices->findField(VertexMaskName)) cut.setVertexMask(name, creator(mask)->getData());
    }
    return cut;
}

} // namespace tour
