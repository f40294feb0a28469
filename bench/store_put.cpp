// One value stored: by the daemon's library, which puts a changed copy in the file's place, beside
// the same file locked, verified and written in place.
//
//   store_put DIRECTORY [--benchmark_...]
//
// The argument of a benchmark is what a flush costs beyond the disk of the directory, in
// milliseconds: virtual disks flush in no time.
#include <benchmark/benchmark.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <string>
#include <thread>

#include "log.h"
#include "plain.h"
#include "store.h"

namespace {

std::string path;
std::chrono::milliseconds flush_time{0};

const std::string VALUE(75, 'v');
constexpr int SETTINGS = 100;

int flush(long call, int fd) {
    struct stat file {};
    if (fstat(fd, &file) == 0 && file.st_nlink != 0) {  // one without a name is in memory
        std::this_thread::sleep_for(flush_time);
    }
    return static_cast<int>(syscall(call, fd));
}

void begin(const benchmark::State& state) {
    flush_time = std::chrono::milliseconds(0);
    unlink(path.c_str());
    DB* db = open_store(path.c_str(), DB_CREATE);
    for (int n = 0; n < SETTINGS; ++n) {
        const std::string name = "setting" + std::to_string(n);
        DBT key = dbt_of(name.data(), name.size());
        DBT value = dbt_of(VALUE.data(), VALUE.size());
        errno = db->put(db, nullptr, &key, &value, 0);
    }
    errno = db->close(db, 0);
    flush_time = std::chrono::milliseconds(state.range(0));
}

void put_in_place(const char* file, const std::string& text) {
    const int lock = need(open(file, O_RDONLY | O_CLOEXEC), file);
    need(flock(lock, LOCK_EX), "flock");
    DB* db = nullptr;
    errno = db_create(&db, nullptr, 0);
    if (errno != 0 || db->verify(db, file, nullptr, nullptr, DB_NOORDERCHK) != 0) {
        fail("verify");
    }
    db = open_store(file, 0);
    DBT key = dbt_of("setting7", 8);
    DBT value = dbt_of(text.data(), text.size());
    if (db->put(db, nullptr, &key, &value, 0) != 0 || db->close(db, 0) != 0) {
        fail("put");
    }
    close(lock);
}

void in_place(benchmark::State& state) {
    begin(state);
    int n = 0;
    for (auto _ : state) {
        put_in_place(path.c_str(), std::to_string(++n) + VALUE);
    }
}

void replaced(benchmark::State& state) {
    begin(state);
    int n = 0;
    for (auto _ : state) {
        if (!db_store(path.c_str(), "setting7", (std::to_string(++n) + VALUE).c_str())) {
            state.SkipWithError("not stored");
        }
    }
}

BENCHMARK(in_place)->Arg(0)->Arg(2)->Arg(8)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(replaced)->Arg(0)->Arg(2)->Arg(8)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

// In the place of the C library's own: a disk whose flushes take time.
extern "C" int fsync(int fd) {
    return flush(SYS_fsync, fd);
}
extern "C" int fdatasync(int fd) {
    return flush(SYS_fdatasync, fd);
}

int main(int argc, char** argv) {
    if (argc < 2) {
        return 2;
    }
    path = std::string(argv[1]) + "/store_put.db";
    set_log_sink([](int, const char* text) { std::fprintf(stderr, "%s\n", text); });
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return unlink(path.c_str());
}
