#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <utility>
#include <variant>
#include <vector>

#include "osc/codec/OSCPacket.hpp"
#include "osc/codec/OSCTimeTag.hpp"
#include "osc/dispatch/DispatchQueue.hpp"
#include "osc/addressing/OSCMethodRoutes.hpp"

namespace kavrin {

/// What deliveries waiting for their time tag may hold at once: a bound on their messages and
/// on those messages' encoded bytes. A plain value.
struct OSCScheduledLimit {
    std::size_t messages = 10'000;
    std::size_t bytes = 16 << 20;
};

/// Decides what a received packet delivers and when: every message, bundles opened depth first,
/// either now or, in a bundle tagged in the future, at its tag. Keeps the bound on what waits.
/// `Origin` says where a packet came from (a sender's address, a connection) and travels with
/// each of its deliveries.
///
/// The rules every server of the library delivers by, for a server of one's own over another
/// transport. admitAll() runs on one receive queue; release() runs wherever a waiting run is
/// delivered.
template <class Origin>
class OSCDeliveryPlanner {
  public:
    using Routes = OSCMethodRoutes::Routes;
    using Clock = DispatchQueue::Clock;

    struct Delivery {
        OSCMessage message;
        OSCTimeTag timeTag;
        Origin origin;
        Routes routes;
    };
    /// Consecutive messages of one bundle that wait for its time tag: one deadline, computed
    /// when the bundle is received, and delivered together in the order met.
    struct ScheduledRun {
        Clock::time_point deadline;
        OSCTimeTag timeTag;
        Origin origin;
        std::vector<std::pair<OSCMessage, Routes>> messages;
        std::size_t bytes = 0;
    };
    /// What one packet delivers, in the order its messages are met.
    struct Plan {
        std::vector<std::variant<Delivery, ScheduledRun>> steps;
        std::size_t scheduledMessages = 0;
        std::size_t scheduledBytes = 0;
    };

    /// Plans `packet` and, unless its waiting messages would pass the bound (false: nothing is
    /// handed on, the packet is dropped whole), hands each step on in order: a Delivery due now
    /// to `now`, a ScheduledRun to `later`.
    template <class Now, class Later>
    bool admitAll(OSCPacket&& packet, bool honourTags, const Origin& origin,
                  const OSCMethodRoutes& routes, Now&& now, Later&& later) {
        plan(std::move(packet), honourTags, origin, routes, planned_);
        if (!admit(planned_)) return false;
        for (auto& step : planned_.steps) {
            if (auto* due = std::get_if<Delivery>(&step)) {
                now(std::move(*due));
            } else {
                later(std::move(std::get<ScheduledRun>(step)));
            }
        }
        return true;
    }

    /// Gives back what a delivered (or abandoned) run held.
    void release(const ScheduledRun& run) {
        scheduledMessages_ -= run.messages.size();
        scheduledBytes_ -= run.bytes;
    }

    void setLimit(OSCScheduledLimit limit) {
        limitMessages_.store(limit.messages);
        limitBytes_.store(limit.bytes);
    }
    OSCScheduledLimit limit() const { return {limitMessages_.load(), limitBytes_.load()}; }

  private:
    /// Fills `plan`, emptied first, with what `packet` delivers; honourTags makes future-tagged
    /// bundles wait. The routes are found now, as the message is received.
    void plan(OSCPacket&& packet, bool honourTags, const Origin& origin,
              const OSCMethodRoutes& routes, Plan& plan) {
        plan.steps.clear();
        plan.scheduledMessages = 0;
        plan.scheduledBytes = 0;
        add(std::move(packet), OSCTimeTag::immediate(), honourTags, false, {}, origin, routes,
            plan);
    }

    /// Takes a plan's waiting messages into the bound, or refuses the whole plan.
    bool admit(const Plan& plan) {
        if (plan.scheduledMessages == 0) return true;
        const std::size_t messages = scheduledMessages_.load();
        const std::size_t bytes = scheduledBytes_.load();
        if (messages + plan.scheduledMessages > limitMessages_.load() ||
            bytes + plan.scheduledBytes > limitBytes_.load()) {
            return false;
        }
        // Only the receive queue adds, so what was read cannot have grown meanwhile.
        scheduledMessages_ += plan.scheduledMessages;
        scheduledBytes_ += plan.scheduledBytes;
        return true;
    }

    // A bundle's own tag governs its elements, whatever tag it was reached with. Whether it
    // waits, and until when, is decided once for the whole bundle: its messages then share one
    // deadline and keep their order.
    void add(OSCPacket&& packet, const OSCTimeTag& timeTag, bool honourTags, bool scheduled,
             Clock::time_point deadline, const Origin& origin, const OSCMethodRoutes& routes,
             Plan& plan) {
        if (auto* bundle = std::get_if<OSCBundle>(&packet)) {
            const OSCTimeTag& tag = bundle->timeTag;
            const bool waits = honourTags && !tag.isImmediate() && tag.isFuture();
            const auto due = waits ? deadlineOf(tag) : Clock::time_point{};
            for (auto& element : bundle->elements) {
                add(std::move(element), tag, honourTags, waits, due, origin, routes, plan);
            }
            return;
        }
        auto& message = std::get<OSCMessage>(packet);
        Routes found = routes.empty() ? Routes{} : routes.routesFor(message.addressPattern);
        if (!scheduled) {
            plan.steps.emplace_back(
                Delivery{std::move(message), timeTag, origin, std::move(found)});
            return;
        }
        const std::size_t bytes = message.decodedFrom() ? message.decodedFrom()->size() : 0;
        auto* last = plan.steps.empty() ? nullptr : std::get_if<ScheduledRun>(&plan.steps.back());
        if (last == nullptr || last->deadline != deadline || last->timeTag != timeTag) {
            plan.steps.emplace_back(ScheduledRun{deadline, timeTag, origin, {}, 0});
            last = &std::get<ScheduledRun>(plan.steps.back());
        }
        last->messages.emplace_back(std::move(message), std::move(found));
        last->bytes += bytes;
        ++plan.scheduledMessages;
        plan.scheduledBytes += bytes;
    }

    // Equal tags must give equal deadlines, so that their deliveries keep the order they came
    // in. Reading the two clocks afresh for each bundle gives an offset that jitters by a few
    // microseconds, so the offset is kept and renewed only when the wall clock has really moved
    // against the steady one (a time step).
    Clock::time_point deadlineOf(const OSCTimeTag& tag) {
        using namespace std::chrono;
        const auto offset = duration_cast<system_clock::duration>(
            system_clock::now().time_since_epoch() -
            duration_cast<system_clock::duration>(Clock::now().time_since_epoch()));
        if (auto drift = offset - clockOffset_; drift > 1ms || drift < -1ms) clockOffset_ = offset;
        const auto due = duration_cast<Clock::duration>(
            duration<double>(tag.date().time_since_epoch() - clockOffset_));
        return Clock::time_point(due);
    }

    std::atomic<std::size_t> limitMessages_{OSCScheduledLimit{}.messages};
    std::atomic<std::size_t> limitBytes_{OSCScheduledLimit{}.bytes};
    std::atomic<std::size_t> scheduledMessages_{0};
    std::atomic<std::size_t> scheduledBytes_{0};
    std::chrono::system_clock::duration clockOffset_{};  // the wall clock's lead; receive queue
    Plan planned_;  // kept from one packet to the next, so allocated once; receive queue
};

}  // namespace kavrin
