#pragma once
/// Messages of a parallel loop in the order of a serial one.

#include <model/hestra/Console.hpp>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Vantle::detail {

/// Takes the messages of the chunks of a loop as they are finished, by any thread, and passes them on in the order of
/// the chunks, in large pieces. Only the thread that made this does so: who hears that one hears them.
class OrderedMessages {
public:
    explicit OrderedMessages(std::size_t chunks) : mySlots(chunks) {}
    OrderedMessages(const OrderedMessages&) = delete;
    OrderedMessages& operator=(const OrderedMessages&) = delete;
    /// Passes on what is there, also of a loop that was given up.
    ~OrderedMessages() {
        for (; myNext < mySlots.size(); ++myNext) myPending += mySlots[myNext].text;
        say(myPending);
    }

    /// Whether anybody hears them.
    [[nodiscard]] bool areHeard() const noexcept { return myAreHeard; }

    /// Each chunk is delivered once.
    void deliver(std::size_t chunk, std::string&& text) {
        const std::lock_guard lock(myMutex);
        mySlots[chunk].text = std::move(text);
        mySlots[chunk].isDone = true;
        if (std::this_thread::get_id() != myThread) return;
        for (; myNext < mySlots.size() && mySlots[myNext].isDone; ++myNext) {
            const std::string next = std::move(mySlots[myNext].text);
            if (myPending.size() + next.size() < PieceSize) {
                myPending += next;
                continue;
            }
            say(myPending);
            myPending.clear();
            say(next);
        }
    }

private:
    static constexpr std::size_t PieceSize = 1 << 16;
    struct Slot {
        std::string text;
        bool isDone = false;
    };

    static void say(const std::string& text) {
        if (!text.empty()) Hestra::Console::write(text);
    }

    std::mutex myMutex;
    std::vector<Slot> mySlots;
    std::string myPending;
    std::size_t myNext = 0;
    std::thread::id myThread = std::this_thread::get_id();
    bool myAreHeard = Hestra::Console::isHeard();
};

} // namespace Vantle::detail
