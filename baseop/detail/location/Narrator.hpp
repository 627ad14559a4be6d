#pragma once
/// Every text about locations, in one place.
///
/// Searches say nothing. They tell of each position whether the query that reports would have anything to say about
/// it; the entry points that report then have it told here, position after position, when somebody listens.

#include <model/hestra/Console.hpp>
#include <model/orvix/BoundingBox.hpp>
#include <model/vantle/Index.hpp>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

namespace Vantle::detail {

/// What is said while something is made by whoever needs it first, until the position is told that is the first in
/// order to have needed it.
class Untold {
public:
    /// Calls `make()`, and keeps what it says if anybody is to hear it.
    template<class F>
    auto during(bool isHeard, F&& make) {
        struct Keeper {
            Keeper(Untold& of, bool isKept) : owner(of), isHeard(isKept) {
                if (isHeard) owner.myMakers.fetch_add(1, std::memory_order_relaxed);
            }
            ~Keeper() {
                owner.add(std::move(text));
                if (isHeard) owner.myMakers.fetch_sub(1, std::memory_order_release);
            }
            Keeper(const Keeper&) = delete;
            Keeper& operator=(const Keeper&) = delete;
            Untold& owner;
            const bool isHeard;
            std::string text;
        } keeper(*this, isHeard);
        const Hestra::ScopedListener listener(isHeard ? [&keeper](std::string_view piece) { keeper.text += piece; }
                                                      : Hestra::Console::Listener());
        return make();
    }
    [[nodiscard]] bool isPending() const noexcept { return myIsPending.load(std::memory_order_acquire); }
    /// The same, or what is made is there for others, and what was said meanwhile is not yet.
    [[nodiscard]] bool mayBePending() const noexcept {
        return myMakers.load(std::memory_order_acquire) != 0 || isPending();
    }
    /// Notes that it is due with the first of these positions, given by their numbers in order, if not before.
    void reachedBy(std::uint64_t number) noexcept;
    /// Calls `f` with the number of the first of them, if there is anything to say and any of them. If there is
    /// nothing, the numbers are forgotten.
    template<class F>
    void whenDue(F&& f) {
        if (!isPending()) return myFirst.store(None, std::memory_order_relaxed);
        const std::uint64_t first = myFirst.load(std::memory_order_relaxed);
        if (first != None) f(first);
    }
    /// Says it, once, and forgets the numbers.
    void tell();

private:
    void add(std::string&& text) noexcept;

    std::atomic<bool> myIsPending{false};
    std::atomic<int> myMakers{0};
    static constexpr auto None = ~std::uint64_t{0};
    std::atomic<std::uint64_t> myFirst{None};
    std::mutex myMutex;
    std::string myText;
};

/// Messages in large pieces, for whoever hears the thread that made this.
class Recital {
public:
    Recital() = default;
    Recital(const Recital&) = delete;
    Recital& operator=(const Recital&) = delete;
    ~Recital() { flush(); }

    void say(std::string_view text) {
        myText += text;
        if (myText.size() >= PieceSize) flush();
    }
    /// Says what `speak()` says.
    template<class F>
    void let(F&& speak) {
        {
            const Hestra::ScopedListener listener([this](std::string_view text) { myText += text; });
            speak();
        }
        if (myText.size() >= PieceSize) flush();
    }

private:
    static constexpr std::size_t PieceSize = std::size_t{1} << 16;
    void flush();

    std::string myText;
};

/// The texts. Constants go to `Console::puts`, those of evaluations to `Console::write`.
namespace tell {

inline constexpr const char* outOfBounds = "UniGridMapper::inUniCell() point of of bounds!";
inline constexpr const char* coarseResolution = "baseop/UniGridMapperUNIGRIDMAPPER WARNING: Resolution too coarse";
void longestList(int length);
void unmapped(const int (&index)[3], const Orvix::BoundingBox& box, const Orvix::PhysicalSpace::vector& unicellSize);

/// Hears of a solve whatever is to be said.
struct Speaking {
    static constexpr bool isHeard = true;
    void singularStep() const { Hestra::Console::puts("WHAT?"); }
    void gaveUp() const { Hestra::Console::puts("getLocalCoordinates3D(): Prevented endless loop BREAK!"); }
};
/// Only notes that something would be said.
struct Silently {
    static constexpr bool isHeard = false;
    bool hasSpoken = false;
    void singularStep() { hasSpoken = true; }
    void gaveUp() { hasSpoken = true; }
};

inline constexpr const char* invalidGrid = " LocalFromWorldPoint::LocalFromWorldPoint() ERROR: invalid grid!";
inline constexpr const char* invalidField = " LocalFromWorldPoint::LocalFromWorldPoint() ERROR: invalid coord field!";
inline constexpr const char* treeFound =
    "LocalFromWorldPoint::LocalFromWorldPoint() Tree found, in Coord-Fields Intercube, using it";
inline constexpr const char* noTree =
    "LocalFromWorldPoint::LocalFromWorldPoint() No tree found, in coord-Fields Intercube, creating one.";
inline constexpr const char* fragmentsBuilt = "FragmentProperties.buildFragmentCoordinates();  WAS HARD WORK";
inline constexpr const char* fragmentsThere =
    "FragmentProperties.buildFragmentCoordinates();  Could benefit from savings";
inline constexpr const char* noCoordinates = "LocalFromWorldPoint::LocalFromWorldPoint() ERROR: Unfragmented, but no "
                                             "proc, curvi or rectilinear data could be accessed??";
inline constexpr const char* incomplete =
    "LocalFromWorldPoint::LocalFromWorldPoint() iteration failure, abording update";
inline constexpr const char* noBlockForBorders =
    "LocalFromWorldPoint::numberOfBordersOfCell() ERROR: curvilienar multiblock not found?";
inline constexpr const char* noBorderCell =
    "LocalFromWorldPoint::getNormal() WARNING: Computing normal from a non border cell?";
inline constexpr const char* intersection =
    "LocalFromWorldPoint::getBorderIntersectionNormal() INFO: Yep! Got intersection!";
void creatingUnimapper(unsigned int fragment, double resolution, double precision);
void creatingTreemapper(unsigned int fragment, double resolution, double precision,
                        const Orvix::PhysicalSpace::vector& scale);
void creatingExactLocator(unsigned int fragment);
/// `reason` is null where it is unknown.
void cannotCreate(const char* what, unsigned int fragment, const char* reason);

inline constexpr std::string_view curvilinearFound = "yayy, curvigrid found!\n";
inline constexpr std::string_view curvilinearMissed = "GridEvaluator: NO curvilinear 3D location found!\n\n";
inline constexpr std::string_view unstructured =
    "GridEvaluator: Evaluating set of Vertices not yet fully implemented!!!\n\n"
    "KDTreeCloudSearch: wrong weight type requested!!\n\n";

} // namespace tell

} // namespace Vantle::detail
