#include <model/hestra/Pulse.hpp>
#include <model/vantle/Blanking.hpp>
#include <model/vantle/Grid.hpp>
#include <model/vantle/MemArray.hpp>

#include <algorithm>
#include <bit>
#include <map>
#include <optional>
#include <stdexcept>

namespace Vantle {

using Hestra::Freshness;
using Hestra::StrongPtr;
using Hestra::WeakPtr;

namespace {

using MaskTypes = TypeList<unsigned char, int, short, unsigned short, unsigned int, unsigned long long>;

template<class... T>
bool isListed(TypeList<T...>, const VantleTypeIndex& type) {
    return ((type == VantleTypeIndex(typeid(T))) || ...);
}

/// Cells on each axis; flat ones on axes with one vertex.
MultiIndex<3> cellsOf(const MultiIndex<3>& vertices) {
    MultiIndex<3> cells = vertices;
    for (int d = 0; d < 3; ++d) cells[d] -= vertices[d] > 1 ? 1 : 0;
    return cells;
}

[[noreturn]] void refuse(const char* mask, const std::string& fragment, const std::string& what) {
    throw std::invalid_argument(std::string(mask) + " of fragment '" + fragment + "' " + what);
}

void checkSize(const char* mask, const std::string& fragment, const DynamicSize& size, const MultiIndex<3>& expected,
               const MultiIndex<3>& vertices) {
    if (size == DynamicSize(expected)) return;
    refuse(mask, fragment,
           "is " + to_string(size) + ", not " + to_string(expected) + ", for vertices " + to_string(vertices));
}

[[noreturn]] void refuseType(const char* mask, const std::string& fragment) {
    refuse(mask, fragment, "has elements of no type that masks have");
}

/// Words of bits for rows of elements, as `BlockMask` keeps them.
struct Bits {
    Bits(const MultiIndex<3>& elements, bool value)
        : size(elements), rowWords((elements[0] + 63) / 64),
          words(static_cast<std::size_t>(rowWords * elements[1] * elements[2]), value ? ~std::uint64_t{0} : 0) {}
    [[nodiscard]] std::uint64_t* row(index_t j, index_t k) noexcept {
        return words.data() + (j + size[1] * k) * rowWords;
    }
    /// Clears what is behind the ends of the rows.
    void trim() noexcept {
        if (const index_t last = size[0] % 64; last != 0)
            for (std::size_t at = rowWords - 1; at < words.size(); at += rowWords)
                words[at] &= (std::uint64_t{1} << last) - 1;
    }

    MultiIndex<3> size;
    index_t rowWords;
    std::vector<std::uint64_t> words;
};

/// Bit i tells whether byte i of eight is not 0.
std::uint64_t bitsOfBytes(const unsigned char* bytes) noexcept {
    std::uint64_t eight = 0;
    for (unsigned i = 0; i < 8; ++i) eight |= std::uint64_t{bytes[i]} << (8 * i); // a load
    constexpr std::uint64_t Low = 0x7f7f7f7f7f7f7f7f;
    const std::uint64_t highest = (((eight & Low) + Low) | eight) & ~Low;
    return highest / 128 * 0x0102040810204080 >> 56;
}

/// Clears the bits where the mask is zero.
template<class T>
void clearMasked(Bits& bits, const MemArray<3, T>& mask) {
    const index_t n = bits.size[0], step = mask.stride();
    const T* from = mask.data();
    for (index_t r = 0; r < bits.size[1] * bits.size[2]; ++r)
        for (index_t word = 0; word < bits.rowWords; ++word) {
            const index_t count = std::min<index_t>(64, n - 64 * word);
            std::uint64_t valid = 0;
            index_t i = 0;
            if constexpr (sizeof(T) == 1)
                for (; step == 1 && i + 8 <= count; i += 8) valid |= bitsOfBytes(from + i) << i;
            for (; i < count; ++i) valid |= std::uint64_t{from[i * step] != 0} << i;
            bits.words[r * bits.rowWords + word] &= valid;
            from += count * step;
        }
}

/// Clears the bits where a mask, if there is one, is zero.
void apply(const MemBase* mask, const char* name, const std::string& fragment, Bits& bits,
           const MultiIndex<3>& vertices) {
    if (!mask) return;
    checkSize(name, fragment, mask->getDynamicSize(), bits.size, vertices);
    if (!withMemArray<3>(MaskTypes(), StrongPtr<MemBase>(const_cast<MemBase*>(mask)),
                         [&](const auto& array) { clearMasked(bits, array); }))
        refuseType(name, fragment);
}

} // namespace

BlockMask::BlockMask(const MultiIndex<3>& vertices, const MemBase* vertexMask, const MemBase* cellMask,
                     const std::string& fragment)
    : mySize(vertices), myCells(cellsOf(vertices)) {
    Bits cells(myCells, true);
    apply(cellMask, CellMaskName, fragment, cells, vertices);
    if (vertexMask) {
        Bits corners(mySize, true);
        apply(vertexMask, VertexMaskName, fragment, corners, vertices);
        for (index_t k = 0; k < myCells[2]; ++k) {
            Hestra::Pulse::beat(static_cast<double>(k) / static_cast<double>(myCells[2]));
            for (index_t j = 0; j < myCells[1]; ++j) {
                const index_t nextJ = mySize[1] > 1 ? j + 1 : j, nextK = mySize[2] > 1 ? k + 1 : k;
                const std::uint64_t* const rows[4] = {corners.row(j, k), corners.row(nextJ, k), corners.row(j, nextK),
                                                      corners.row(nextJ, nextK)};
                const auto all = [&](index_t word) { // of the four vertices at each i
                    return word < corners.rowWords ? rows[0][word] & rows[1][word] & rows[2][word] & rows[3][word] : 0;
                };
                std::uint64_t* const row = cells.row(j, k);
                for (index_t word = 0; word < cells.rowWords; ++word)
                    row[word] &= mySize[0] > 1 ? all(word) & (all(word) >> 1 | all(word + 1) << 63) : all(word);
            }
        }
    }
    cells.trim();
    myRowWords = cells.rowWords;
    myBits = std::move(cells.words);
    for (const std::uint64_t word : myBits) myValid += static_cast<index_t>(std::popcount(word));
}

BlockMask::~BlockMask() = default;

// ---------------------------------------------------------------------------------------------------------------------

namespace {

/// Beside the vertices: what was made from the masks, by fragment.
class MadeMasks : public Hestra::Interface<MadeMasks> {
public:
    struct Entry {
        DynamicSize vertices;
        StrongPtr<const BlockMask> mask;
    };
    [[nodiscard]] std::optional<Entry> find(const std::string& fragment, const Freshness& origin) const {
        const std::lock_guard lock(myMutex);
        const auto found = myOrigin == origin ? myEntries.find(fragment) : myEntries.end();
        return found == myEntries.end() ? std::optional<Entry>() : found->second;
    }
    /// Lets go of what was made from other masks.
    void store(const std::string& fragment, const Freshness& origin, const Entry& entry) {
        const std::lock_guard lock(myMutex);
        if (!(myOrigin == origin)) myEntries.clear();
        myOrigin = origin;
        myEntries.insert_or_assign(fragment, entry);
    }

private:
    mutable std::mutex myMutex;
    Freshness myOrigin; // of all entries
    std::map<std::string, Entry> myEntries;
};

StrongPtr<MadeMasks> findOrMakeStore(const Representation& vertices) {
    static std::mutex making;
    const std::lock_guard lock(making);
    StrongPtr<MadeMasks> found = vertices.findInterface<MadeMasks>();
    if (!found) {
        found = Hestra::makeRef<MadeMasks>();
        vertices.addInterface(found);
    }
    return found;
}

StrongPtr<CreativeArrayBase> creatorOf(const StrongPtr<Field>& mask, const StrongPtr<FragmentID>& fragment) {
    return mask ? mask->getCreator(fragment) : nullptr;
}

/// The data of a mask, null where it has none; what cannot be made is no mask that all vertices pass.
StrongPtr<MemBase> dataOf(const char* name, const StrongPtr<Field>& mask, const StrongPtr<FragmentID>& fragment) {
    const StrongPtr<CreativeArrayBase> creator = creatorOf(mask, fragment);
    StrongPtr<MemBase> data = creator ? creator->getData() : nullptr;
    if (creator && !data) refuse(name, FragmentID::Name(fragment, ""), "cannot be made");
    return data;
}

} // namespace

Blanking::Blanking(const Representation& vertices)
    : myVertexMask(vertices.findField(VertexMaskName)), myCellMask(vertices.findField(CellMaskName)) {
    if (myVertexMask || myCellMask) myMade = findOrMakeStore(vertices);
}

Blanking::Blanking(const Grid& grid, const std::string& chart) {
    if (const StrongPtr<Representation> vertices = grid.getCartesianRepresentation(chart)) *this = Blanking(*vertices);
}

StrongPtr<MemBase> Blanking::vertexMaskOf(const StrongPtr<FragmentID>& fragment) const {
    return dataOf(VertexMaskName, myVertexMask, fragment);
}

bool Blanking::concerns(const StrongPtr<FragmentID>& fragment) const {
    return creatorOf(myVertexMask, fragment) || creatorOf(myCellMask, fragment);
}

StrongPtr<const BlockMask> Blanking::of(const StrongPtr<FragmentID>& fragment, const MultiIndex<3>& vertices) const {
    return find(fragment, &vertices);
}

StrongPtr<const BlockMask> Blanking::of(const StrongPtr<FragmentID>& fragment) const { return find(fragment, nullptr); }

StrongPtr<const BlockMask> Blanking::find(const StrongPtr<FragmentID>& fragment, const MultiIndex<3>* vertices) const {
    if (!myMade || !concerns(fragment)) return nullptr;
    auto& made = static_cast<MadeMasks&>(*myMade);
    const std::string name = FragmentID::Name(fragment, "");
    const Freshness origin = freshness();
    const auto isFor = [&](const MadeMasks::Entry& entry) {
        return !vertices || entry.vertices == DynamicSize(*vertices);
    };
    if (const auto known = made.find(name, origin); known && isFor(*known)) return known->mask;

    // Made without a lock: who makes the masks may itself ask.
    const StrongPtr<MemBase> vertexMask = dataOf(VertexMaskName, myVertexMask, fragment),
                             cellMask = dataOf(CellMaskName, myCellMask, fragment);
    MultiIndex<3> size;
    if (vertices) {
        size = *vertices;
    } else if (vertexMask) {
        if (!vertexMask->getDynamicSize().get(size)) refuse(VertexMaskName, name, "has not three axes");
    } else {
        if (!cellMask->getDynamicSize().get(size)) refuse(CellMaskName, name, "has not three axes");
        size += MultiIndex<3>::filled(1);
    }
    StrongPtr<const BlockMask> mask(new BlockMask(size, vertexMask.rawptr(), cellMask.rawptr(), name));
    if (mask->isEverythingValid()) mask = nullptr;
    made.store(name, origin, {size, mask});
    return mask;
}

void Blanking::check(const Field& positions) const {
    const auto checkMask = [&](const StrongPtr<Field>& mask, const char* name, bool isOfCells) {
        if (!mask) return;
        mask->iterate(
            [&](const StrongPtr<FragmentID>& fragment, const StrongPtr<CreativeArrayBase>& creator) {
                const std::string fragmentName = FragmentID::Name(fragment, "");
                const StrongPtr<CreativeArrayBase> place = positions.getCreator(fragment);
                if (!place) refuse(name, fragmentName, "is for a fragment without positions");
                const VantleTypeIndex type = creator->elementType();
                if (type && !isListed(MaskTypes(), type)) refuseType(name, fragmentName);
                const DynamicSize known = getSize(*place);
                if (known && known.rank() != 3) refuse(name, fragmentName, "is for vertices without three axes");
                const auto vertices = known.as<3>();
                if (!vertices) return true;
                DynamicSize size = getSize(*creator);
                if (!size) size = dataOf(name, mask, fragment)->getDynamicSize();
                checkSize(name, fragmentName, size, isOfCells ? cellsOf(*vertices) : *vertices, *vertices);
                return true;
            },
            false);
    };
    checkMask(myVertexMask, VertexMaskName, false);
    checkMask(myCellMask, CellMaskName, true);
}

// ---------------------------------------------------------------------------------------------------------------------

BlankingInput::BlankingInput(const Representation& vertices) : myVertices(vertices), myMasks(vertices) { (void)age(); }
BlankingInput::~BlankingInput() = default;

Blanking BlankingInput::now() const {
    (void)age();
    const std::lock_guard lock(myMutex);
    return myMasks;
}

BlankingInput::age_t BlankingInput::age() const noexcept {
    // A mask may be derived from something that has this as an input, and ask back for the age: as known so far.
    struct Question {
        const BlankingInput* asked;
        const Question* before;
    };
    static thread_local const Question* questions = nullptr;
    for (const Question* q = questions; q; q = q->before)
        if (q->asked == this) return Ageable::age();
    const Question question{this, questions};
    questions = &question;

    auto& self = const_cast<BlankingInput&>(*this);
    Blanking masks;
    {
        const StrongPtr<const Representation> vertices = myVertices.lock();
        const Blanking present = vertices ? Blanking(*vertices) : Blanking();
        const std::lock_guard lock(myMutex);
        if (vertices && !(present == myMasks)) {
            self.myMasks = present;
            self.touch();
        }
        masks = myMasks;
    }
    if (masks.vertexMask()) self.raiseAge(masks.vertexMask()->age());
    if (masks.cellMask()) self.raiseAge(masks.cellMask()->age());
    questions = question.before;
    return Ageable::age();
}

} // namespace Vantle
