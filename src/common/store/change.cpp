#include "common/store/change.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <thread>
#include <utility>

#include "common/store/check.h"
#include "common/store/fresh_file.h"
#include "common/store/handle.h"
#include "common/store/unnamed.h"
#include "log.h"
#include "replace_file.h"

namespace {

using namespace std::chrono_literals;

// A program that takes no lock is done with one record well before.
constexpr int TRIES = 5;
constexpr auto PAUSE = 20ms;
constexpr int CHANGED_MEANWHILE = ESTALE;  // no step reports it itself

DBT dbt_of(std::string_view text) {
    DBT dbt{};
    dbt.data = const_cast<char*>(text.data());  // the library only reads it
    dbt.size = static_cast<u_int32_t>(text.size());
    return dbt;
}

// Fills the fresh file with the copy, as whose owner wants it. 0 or an errno.
int fill(const FreshFile& fresh, const OwnedFd& copy, const StoreLock& model) {
    struct stat old {};
    if (fstat(model.fd(), &old) != 0 || !copy_contents(copy.get(), fresh.fd())) {
        return errno;
    }
    return copy_mode_and_owner(fresh.fd(), old);
}

void log_replacement(const Replacement& replaced, const std::string& path) {
    const char* reason = db_strerror(replaced.error);
    if (replaced.in_place && replaced.error != 0) {
        log_message(msg::STORE_NOT_FLUSHED, path.c_str(), reason);
    } else if (!replaced.in_place && replaced.error != CHANGED_MEANWHILE) {
        log_message(msg::FILE_NOT_WRITTEN, path.c_str(), reason);
    }
}

}  // namespace

int StoreChange::begin() {
    memory_.reset(memfd_create("change", MFD_CLOEXEC));
    if (!memory_.valid() || !read_contents(lock_.fd(), before_) ||
        !write_contents(memory_.get(), before_)) {
        return errno;
    }
    DB* copy = create_handle(0);
    if (copy == nullptr) {
        return ENOMEM;
    }
    const int result = copy->open(copy, nullptr, name_of(memory_).c_str(), nullptr, DB_HASH, 0, 0);
    if (result != 0) {
        (void)copy->close(copy, 0);
        return result;
    }
    copy_ = copy;
    return 0;
}

int StoreChange::make(const Step& step) {
    DBT key = dbt_of(step.key);
    if (!step.value) {
        return copy_->del(copy_, nullptr, &key, 0);
    }
    DBT value = dbt_of(*step.value);
    return copy_->put(copy_, nullptr, &key, &value, 0);
}

int StoreChange::remember(Step step) {
    const int result = make(step);
    if (result == 0) {
        steps_.push_back(std::move(step));
    } else if (result != DB_NOTFOUND) {
        failed_ = result;
    }
    return result;
}

int StoreChange::put(std::string_view key, std::string_view value) {
    return remember({std::string(key), std::string(value)});
}

int StoreChange::del(std::string_view key) {
    return remember({std::string(key), std::nullopt});
}

int StoreChange::close_copy() {
    DB* copy = std::exchange(copy_, nullptr);
    return copy == nullptr ? 0 : copy->close(copy, 0);
}

int StoreChange::put_in_place() {
    const int closed = close_copy();
    if (steps_.empty()) {
        return 0;
    }
    if (failed_ != 0 || closed != 0) {
        return failed_ != 0 ? failed_ : closed;
    }
    return replace_unless_changed();
}

int StoreChange::replace_unless_changed() {
    int result = replace_file_once();
    for (int tries = 1; result == CHANGED_MEANWHILE && tries < TRIES; ++tries) {
        std::this_thread::sleep_for(PAUSE);
        const int begun = begin_again();
        result = begun == 0 ? replace_file_once() : begun;
    }
    if (result == CHANGED_MEANWHILE) {
        log_message(msg::FILE_KEEPS_CHANGING, lock_.path().c_str());
        return EBUSY;
    }
    return result;
}

// The same changes to the file that is there now.
int StoreChange::begin_again() {
    lock_.relock();
    lock_.announce_change();
    int result = ensure_file(lock_);
    result = result == 0 ? verify_store(lock_) : result;
    result = result == 0 ? begin() : result;
    for (std::size_t n = 0; result == 0 && n < steps_.size(); ++n) {
        result = make(steps_[n]);
        result = result == DB_NOTFOUND ? 0 : result;  // somebody else has deleted it
    }
    const int closed = close_copy();
    return result != 0 ? result : closed;
}

int StoreChange::replace_file_once() {
    // The copy may be of a moment in which somebody had written a part.
    if (const int unsound = verify_file(memory_.get(), name_of(memory_)); unsound != 0) {
        return is_damage(unsound) ? CHANGED_MEANWHILE : unsound;
    }
    std::error_code missing;
    const std::string target = std::filesystem::canonical(lock_.path(), missing);
    FreshFile fresh(target);
    int result = missing ? CHANGED_MEANWHILE : fresh.error();
    result = result == 0 ? fill(fresh, memory_, lock_) : result;
    const auto rename = [&](const std::string& from, const std::string& to) {
        const bool same = lock_.is_current() && has_contents(lock_.fd(), before_);
        return same ? rename_file(from, to) : CHANGED_MEANWHILE;
    };
    const Replacement replaced =
        result == 0 ? move_in_place(fresh.path(), target, rename) : Replacement{false, result};
    if (replaced.in_place) {
        fresh.keep();
        keep_verdict(fresh.fd(), lock_.path());
    }
    log_replacement(replaced, lock_.path());
    return replaced.error;
}
