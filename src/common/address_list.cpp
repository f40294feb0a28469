#include "address_list.h"

#include <algorithm>

#include "keys.h"
#include "store.h"
#include "text.h"

namespace {

constexpr std::chrono::seconds LONGEST_USE{1};

}  // namespace

std::optional<std::vector<std::string>> AddressList::items() {
    const std::lock_guard hold(lock_);
    read();
    return items_;
}

bool AddressList::has(const std::string& address, bool if_unknown) {
    const std::lock_guard hold(lock_);
    read();
    return items_ ? std::find(items_->begin(), items_->end(), address) != items_->end()
                  : if_unknown;
}

void AddressList::read() {
    const auto now = std::chrono::steady_clock::now();
    if (read_at_ && now - *read_at_ < LONGEST_USE) {
        return;
    }
    read_at_ = now;
    std::string list;
    if (db_read_settled(CONFIG_DB, key_, list) != StoreRead::UNREADABLE) {
        const auto pieces = split(list, ',');
        items_.emplace(pieces.begin(), pieces.end());
    }
}
