#include "strangers.h"

#include "keys.h"
#include "log.h"
#include "owned.h"
#include "resolve.h"
#include "store.h"
#include "text.h"

namespace {

using std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto ONE_SECOND = 1s;

bool is_due(steady_clock::time_point last) {
    return last == steady_clock::time_point{} || steady_clock::now() - last >= ONE_SECOND;
}

}  // namespace

bool ServerList::has(const sockaddr_in& sender) {
    if (is_due(read_at_)) {
        std::string fresh;
        if (db_read_settled(CONFIG_DB, KEY_SERVER_LIST, fresh) != StoreRead::UNREADABLE) {
            list_ = fresh;
        }
        read_at_ = steady_clock::now();
    }
    const OwnedText address(ip_to_string(sender.sin_addr.s_addr));
    return address && list_has(list_, address.get());
}

void Strangers::take(const Datagram& datagram) {
    if (inbox_.put(datagram)) {
        return;
    }
    ++dropped_;
    if (is_due(reported_at_)) {
        const OwnedText address(ip_to_string(datagram.sender.sin_addr.s_addr));
        log_message(msg::STRANGERS_DROPPED, dropped_, address.get());
        dropped_ = 0;
        reported_at_ = steady_clock::now();
    }
}
