// A job server with one worker thread, and the queue that feeds it.
//
// The queue takes its nodes from blocks that are allocated at once and reused, so that queuing and
// running a job allocates nothing in the steady state. The worker is woken by a semaphore, one post
// per job; one wake-up drains the whole queue.
#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "log.h"
#include "signals.h"

inline constexpr const char* PK_SYNC_SERVER_ORIGIN = "src/PK_SyncServer";

// A first-in, first-out queue of pooled nodes. A node is on one list at a time, or in a caller's
// hands between Mem_New and Put, and between Get and Free. All operations but constructor and
// destructor may be called from any thread; none logs.
template <typename T>
class PKMemQueue {
public:
    struct QueueNode {
        T element;
        QueueNode* next;
    };

    // Allocates the first block of `nodes_per_block` nodes; where that fails, the queue starts
    // empty and Mem_New tries again.
    explicit PKMemQueue(std::uint64_t nodes_per_block) : nodes_per_block_(nodes_per_block) {
        (void)AddBlock(nodes_per_block_);
    }
    PKMemQueue(const PKMemQueue&) = delete;
    PKMemQueue& operator=(const PKMemQueue&) = delete;
    virtual ~PKMemQueue() {
        pthread_mutex_destroy(&free_lock_);
        pthread_mutex_destroy(&work_lock_);
    }

    // Adds `count` zeroed nodes to the free list. 0; -1 when all 1000 blocks exist; -2 when memory
    // is exhausted. The caller holds the free lock or is the constructor.
    int AddBlock(std::uint64_t count) {
        if (block_count_ > static_cast<std::int32_t>(blocks_.size()) - 1) {
            return -1;
        }
        std::unique_ptr<QueueNode[]> block(new (std::nothrow) QueueNode[count]());
        if (!block) {
            return -2;
        }
        for (std::uint64_t n = 0; n < count; ++n) {
            free_.append(&block[n]);
        }
        blocks_[static_cast<std::size_t>(block_count_++)] = std::move(block);
        return 0;
    }

    // A free node that the caller owns now, or null.
    QueueNode* Mem_New() {
        const Locked lock(free_lock_);
        QueueNode* node = free_.take();
        if (node == nullptr && AddBlock(nodes_per_block_) == 0) {
            node = free_.take();
        }
        return node;
    }

    // Queues a node.
    void Put(QueueNode* node) {
        const Locked lock(work_lock_);
        work_.append(node);
    }

    // The oldest queued node, which the caller owns now, or null.
    QueueNode* Get() {
        const Locked lock(work_lock_);
        return work_.take();
    }

    // Gives a node back.
    void Free(QueueNode* node) {
        const Locked lock(free_lock_);
        free_.append(node);
    }

private:
    class Locked {
    public:
        explicit Locked(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
        Locked(const Locked&) = delete;
        Locked& operator=(const Locked&) = delete;
        ~Locked() { pthread_mutex_unlock(&mutex_); }

    private:
        pthread_mutex_t& mutex_;
    };

    struct NodeList {
        QueueNode* head = nullptr;
        QueueNode* tail = nullptr;

        void append(QueueNode* node) {
            node->next = nullptr;
            (tail == nullptr ? head : tail->next) = node;
            tail = node;
        }
        QueueNode* take() {
            QueueNode* node = head;
            if (node != nullptr) {
                head = node->next;
                tail = head == nullptr ? nullptr : tail;
                node->next = nullptr;
            }
            return node;
        }
    };

    NodeList free_;
    NodeList work_;
    pthread_mutex_t free_lock_ = PTHREAD_MUTEX_INITIALIZER;  // free list and blocks
    pthread_mutex_t work_lock_ = PTHREAD_MUTEX_INITIALIZER;  // work list
    std::int32_t block_count_ = 0;
    std::array<std::unique_ptr<QueueNode[]>, 1000> blocks_;
    std::uint64_t nodes_per_block_;
};

// Runs jobs one at a time, in the order in which they were accepted, on its one worker thread. A
// job is a function and its argument, which belongs to the function once the job is accepted. All
// failures are logged.
template <typename T>
class PK_SyncServer {
public:
    using SyncFunc = int (*)(T);

    struct sync_struct {
        T arg;
        SyncFunc lpSyncFunc;
    };
    using Queue = PKMemQueue<sync_struct>;

    static constexpr std::uint64_t NODES_PER_BLOCK = 2048;
    static constexpr int MAX_WAITING = 8192;

    PK_SyncServer() = default;
    PK_SyncServer(const PK_SyncServer&) = delete;
    PK_SyncServer& operator=(const PK_SyncServer&) = delete;
    ~PK_SyncServer() {
        if (thread_ == 0) {
            delete mQueue;
        }  // else the worker, which never ends, still uses it
    }

    // Makes queue, semaphore and worker. 0; -11 without a queue, -12 without a semaphore, -2
    // without a thread. Call once; on failure call Stop and delete the server.
    int Start() {
        mQueue = new (std::nothrow) Queue(NODES_PER_BLOCK);
        if (mQueue == nullptr) {
            log_message(msg::NO_JOB_QUEUE, strerror(errno), PK_SYNC_SERVER_ORIGIN, "Start",
                        __LINE__);
            return -11;
        }
        has_semaphore_ = sem_init(&semaphore_, 0, 0) == 0;
        if (!has_semaphore_) {
            log_message(msg::NO_JOB_SEMAPHORE, strerror(errno), PK_SYNC_SERVER_ORIGIN, "Start",
                        __LINE__);
            return -12;
        }
        const TermSignalBlocked blocked;  // SIGTERM belongs to the main thread
        const int result = pthread_create(&thread_, nullptr, &PK_SyncServer::work, this);
        if (result != 0) {
            thread_ = 0;
            log_message(msg::NO_JOB_THREAD, result, strerror(errno), PK_SYNC_SERVER_ORIGIN,
                        __LINE__);
            return -2;
        }
        return 0;
    }

    // Queues a job. 0; -1 before Start; -4 when more than 8192 wake-ups wait; -2 when the function
    // is null or no node is to be had. The argument of a refused job stays with the caller.
    int AddSyncWork(T arg, SyncFunc lpSyncFunc) {
        if (mQueue == nullptr) {
            log_message(msg::JOB_SERVER_NOT_RUNNING, PK_SYNC_SERVER_ORIGIN, "AddSyncWork",
                        __LINE__);
            return -1;
        }
        int waiting = 0;
        if (sem_getvalue(&semaphore_, &waiting) == 0 && waiting > MAX_WAITING) {
            log_message(msg::JOB_QUEUE_FULL, waiting, PK_SYNC_SERVER_ORIGIN, "AddSyncWork",
                        __LINE__);
            return -4;
        }
        if (lpSyncFunc == nullptr) {
            log_message(msg::JOB_WITHOUT_FUNCTION, PK_SYNC_SERVER_ORIGIN, "AddSyncWork", __LINE__);
            return -2;
        }
        typename Queue::QueueNode* node = mQueue->Mem_New();
        if (node == nullptr) {
            log_message(msg::NO_MEMORY_FOR_JOB, strerror(errno), PK_SYNC_SERVER_ORIGIN,
                        "AddSyncWork", __LINE__);
            return -2;
        }
        node->element = {arg, lpSyncFunc};
        mQueue->Put(node);
        (void)sem_post(&semaphore_);
        return 0;
    }

    // For a server whose Start failed: releases the semaphore. It does not end a running worker, on
    // purpose: the flag keeps the value at which that one runs. Returns 0.
    int Stop() {
        stop_ = 0;
        if (thread_ != 0) {
            (void)pthread_kill(thread_, 0);
        }
        if (has_semaphore_) {
            (void)sem_destroy(&semaphore_);
            has_semaphore_ = false;
        }
        return 0;
    }

private:
    static void* work(void* argument) {
        auto* server = static_cast<PK_SyncServer*>(argument);
        (void)pthread_detach(pthread_self());
        while (server->stop_ == 0) {
            while (sem_wait(&server->semaphore_) != 0 && errno == EINTR) {}
            server->drain();
        }
        return nullptr;
    }

    void drain() {
        while (typename Queue::QueueNode* node = mQueue->Get()) {
            const sync_struct& job = node->element;
            if (job.lpSyncFunc != nullptr) {
                (void)job.lpSyncFunc(job.arg);
            }
            mQueue->Free(node);
        }
    }

    pthread_t thread_ = 0;
    Queue* mQueue = nullptr;  // the messages name it so
    std::atomic<std::int32_t> stop_ = 0;
    sem_t semaphore_{};
    bool has_semaphore_ = false;
};
