#pragma once
/// Messages of a parallel loop in the order of a serial one.

#include <model/hestra/Console.hpp>

#include <mutex>
#include <string>
#include <vector>

namespace Vantle::detail {

/// Takes the messages of the chunks of a loop as they are finished, by any thread, and passes them on in the order of
/// the chunks, in large pieces: to standard output, or to what captures the messages of the thread that made this.
class OrderedMessages {
public:
    explicit OrderedMessages(std::size_t chunks) : mySlots(chunks), myCapture(Hestra::MessageCapture::current()) {}
    OrderedMessages(const OrderedMessages&) = delete;
    OrderedMessages& operator=(const OrderedMessages&) = delete;
    /// Passes on what is there, also of a loop that was given up.
    ~OrderedMessages() {
        for (; myNext < mySlots.size(); ++myNext) myPending += mySlots[myNext].text;
        write(myPending);
    }

    /// Each chunk is delivered once.
    void deliver(std::size_t chunk, std::string&& text) {
        const std::lock_guard lock(myMutex);
        mySlots[chunk].text = std::move(text);
        mySlots[chunk].isDone = true;
        for (; myNext < mySlots.size() && mySlots[myNext].isDone; ++myNext) {
            const std::string next = std::move(mySlots[myNext].text);
            if (myPending.size() + next.size() < PieceSize) {
                myPending += next;
                continue;
            }
            write(myPending);
            myPending.clear();
            write(next);
        }
    }

private:
    static constexpr std::size_t PieceSize = 1 << 16;
    struct Slot {
        std::string text;
        bool isDone = false;
    };

    void write(const std::string& text) {
        if (text.empty()) return;
        if (myCapture)
            *myCapture += text;
        else
            Hestra::Console::write(text);
    }

    std::mutex myMutex;
    std::vector<Slot> mySlots;
    std::string myPending;
    std::size_t myNext = 0;
    std::string* myCapture;
};

} // namespace Vantle::detail
