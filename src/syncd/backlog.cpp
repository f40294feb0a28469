#include "backlog.h"

bool is_repeat(const Datagram& datagram, const Datagram& request) {
    return datagram.message.type == MSG_DATA_REQUEST &&
           datagram.message.record.kind == request.message.record.kind &&
           datagram.sender.sin_addr.s_addr == request.sender.sin_addr.s_addr;
}

bool Backlog::add(const Datagram& datagram) {
    if (full()) {
        return false;
    }
    datagrams_.push_back(datagram);
    return true;
}

std::optional<Datagram> Backlog::next() {
    if (datagrams_.empty()) {
        return std::nullopt;
    }
    const Datagram oldest = datagrams_.front();
    datagrams_.pop_front();
    return oldest;
}

std::size_t Backlog::drop_repeats(const Datagram& request) {
    return std::erase_if(
        datagrams_, [&request](const Datagram& waiting) { return is_repeat(waiting, request); });
}
