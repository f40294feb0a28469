#include "connections.h"

#include <sys/socket.h>

#include <algorithm>
#include <utility>

Connection::~Connection() {
    sink.reset();  // first its records, then its end
    (void)shutdown(fd.get(), SHUT_RDWR);
}

bool Connections::can_take() const {
    return open_.size() < MOST || std::any_of(open_.begin(), open_.end(),
                                              [](const auto& each) { return !each->of_master; });
}

std::unique_ptr<Connection> Connections::take(std::unique_ptr<Connection> fresh, Moment now) {
    std::unique_ptr<Connection> given_up;
    if (open_.size() >= MOST) {
        // The master's sort last.
        const auto silent =
            std::min_element(open_.begin(), open_.end(), [](const auto& left, const auto& right) {
                return std::pair(left->of_master, left->silent_since) <
                       std::pair(right->of_master, right->silent_since);
            });
        given_up = std::move(*silent);
        open_.erase(silent);
    }
    open_.push_back(std::move(fresh));
    give_turns(now);
    return given_up;
}

void Connections::close(const Connection& connection, Moment now) {
    std::erase_if(open_, [&connection](const auto& each) { return each.get() == &connection; });
    give_turns(now);
}

void Connections::close_all_but(const Connection* connection, Moment now) {
    std::erase_if(open_, [connection](const auto& each) { return each.get() != connection; });
    give_turns(now);
}

std::vector<Connection*> Connections::readable_beside(const Connection* served) const {
    const bool master_stores =
        served != nullptr && served->of_master && served->sink && served->sink->has_batch();
    std::vector<Connection*> readable;
    for (const auto& each : open_) {
        if (each->at_turn && (each->of_master || !master_stores)) {
            readable.push_back(each.get());
        }
    }
    return readable;
}

void Connections::give_turns(Moment now) {
    for (auto each = open_.begin(); each != open_.end(); ++each) {
        const bool first = std::none_of(open_.begin(), each, [each](const auto& older) {
            return older->address == (*each)->address;
        });
        if (first && !(*each)->at_turn) {
            (*each)->at_turn = true;
            (*each)->silent_since = now;
        }
    }
}

Connection* choose(const std::vector<Connection*>& ready, const Connection* served) {
    const auto best = std::min_element(ready.begin(), ready.end(),
                                       [served](const Connection* left, const Connection* right) {
                                           return std::pair(!left->of_master, left != served) <
                                                  std::pair(!right->of_master, right != served);
                                       });
    return best == ready.end() ? nullptr : *best;
}
