// The message layer: messages between objects by id, on the worker queue of the
// receiver's pool, on its serial queue, or on the file threads.
#pragma once

#include <cstdint>

#include "Core/Event.h"

namespace Qelvar::Corvane {

class CMessage {
public:
    /// The type that, sent by an object to itself, closes it.
    static constexpr std::uint32_t kCloseType = 12;

    /// Posts a message to `receiver`'s pool, or to the file threads when `is_io`. A
    /// receiver of 0 or above is refused with a log line.
    static void Notify(std::int64_t sender, std::int64_t receiver, std::uint32_t type, std::int64_t attach,
                       bool is_io);

    /// Posts a message on the serial queue of `receiver`'s pool.
    static void NotifySerial(std::int64_t sender, std::int64_t receiver, std::uint32_t type, std::int64_t attach,
                             std::uint32_t flag);

    /// Puts the close message of object `id` at the head of its pool's worker queue.
    /// False when the pool no longer exists.
    static bool Close(std::int64_t id);

    /// Delivers a message record on a worker or file thread and gives the record back.
    static void handle_message(SEvent* record);
};

}  // namespace Qelvar::Corvane
