#include <baseop/detail/location/Narrator.hpp>

#include <new>
#include <omp.h>
#include <sstream>
#include <utility>

namespace Vantle::detail {

using Hestra::Console;

void Untold::add(std::string&& text) noexcept {
    if (text.empty()) return;
    const std::lock_guard lock(myMutex);
    try {
        myText += text;
    } catch (const std::bad_alloc&) {
        // As with listeners: what cannot be kept is not said.
    }
    myIsPending.store(true, std::memory_order_release);
}

void Untold::reachedBy(std::uint64_t number) noexcept {
    for (std::uint64_t before = myFirst.load(std::memory_order_relaxed); number < before;)
        if (myFirst.compare_exchange_weak(before, number, std::memory_order_relaxed)) return;
}

void Untold::tell() {
    if (!isPending()) return myFirst.store(None, std::memory_order_relaxed);
    std::string text;
    {
        const std::lock_guard lock(myMutex);
        text.swap(myText);
        myIsPending.store(false, std::memory_order_release);
        myFirst.store(None, std::memory_order_relaxed);
    }
    Console::write(text);
}

void Recital::flush() {
    if (!myText.empty()) Console::write(myText);
    myText.clear();
}

namespace tell {

namespace {

constexpr const char* locationSource = "baseop/LocalFromWorldPoint";

} // namespace

void longestList(int length) {
    Console::print("Added the curvi cells into the unigrid, Maximal %d curvicells per unicell\n", length);
}

void unmapped(const int (&index)[3], const Orvix::BoundingBox& box, const Orvix::PhysicalSpace::vector& unicellSize) {
    const auto line = [](const char* title, const auto&... values) {
        std::ostringstream text;
        text << "                           " << title;
        (text << ... << values) << '\n';
        Console::write(text.str());
    };
    if (!Console::isHeard()) return;
    Console::print("UniGridMapper::inUniCell() mapped index <%d,%d,%d> out of bounds!\n", index[0], index[1], index[2]);
    line("BoundingBox Min:", box.minCoord());
    line("BoundingBox Max:", box.maxCoord());
    line("cell_len: ", "(", unicellSize[0], " ,", unicellSize[1], " ,", unicellSize[2], ")");
}

void creatingUnimapper(unsigned int fragment, double resolution, double precision) {
    Console::print("%s Create unimapper for %d, res=%lg, prec=%lg\n", locationSource, static_cast<int>(fragment),
                   resolution, precision);
}

void creatingTreemapper(unsigned int fragment, double resolution, double precision,
                        const Orvix::PhysicalSpace::vector& scale) {
    Console::print("%s Create treemapper for %d, res=%lg, prec=%lg\n", locationSource, static_cast<int>(fragment),
                   resolution, precision);
    Console::print("and scale: %f %f %f: \n", scale[0], scale[1], scale[2]);
    Console::print("in thread: %d\n", omp_get_thread_num());
}

void creatingExactLocator(unsigned int fragment) {
    Console::print("%s Create exact locator for %d\n", locationSource, static_cast<int>(fragment));
}

void cannotCreate(const char* what, unsigned int fragment, const char* reason) {
    if (reason)
        Console::print("%s Exception - CANNOT create %s for fragment %d because %s \n", locationSource, what,
                       static_cast<int>(fragment), reason);
    else
        Console::print("%s Exception - CANNOT create %s for %d\n", locationSource, what, static_cast<int>(fragment));
}

} // namespace tell

} // namespace Vantle::detail
