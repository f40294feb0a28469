// Plain IPv4 TCP: listen, accept, connect, send and receive whole blocks.
//
// Descriptors are plain ints that the caller closes with TcpClose. All of them are close-on-exec: a
// boot service that inherited the listener would keep a restarted slave from its port. No function
// logs or keeps state; each may be called from any thread. Sends never raise SIGPIPE. A call
// interrupted by a signal goes on.
//
// Every connected socket, connecting or accepting, gets send and receive time-outs of the caller's
// seconds and keep-alive (idle 3 s, every 1 s, 3 probes): a dead peer is noticed in about 6 s.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

// Keep-alive as every connection has it.
inline constexpr int KEEPALIVE_IDLE = 3;      // seconds
inline constexpr int KEEPALIVE_INTERVAL = 1;  // seconds
inline constexpr int KEEPALIVE_COUNT = 3;     // probes

// A listener (backlog 1024) on every local address, whatever `address` says; `address` and
// `timeout` are not used. Returns the descriptor, or -1 when no socket can be made. A failed bind
// still returns a descriptor, which then listens on another port (TcpLocalPort tells), with errno
// as the bind left it. The port of a process that has just ended is taken over; that of an
// open listener is not.
int TcpBuildListen(const char* address, std::uint16_t port, int timeout);

// The local port of a socket in host byte order; 0 when it has none.
std::uint16_t TcpLocalPort(int fd);

// Waits for a connection on `listener` without limit and sets it up with `timeout` seconds.
// Returns the descriptor, or -1 with errno.
int TcpSvAccept(int listener, int timeout);

// Connects to `address` (network byte order) and `port` (host byte order) within `timeout` seconds.
// Returns a descriptor, or -1 when no socket can be made. A refused or timed-out connection still
// returns a descriptor, on which every send fails at once.
int TcpConnectSv(std::uint32_t address, std::uint16_t port, int timeout);

// Connects the socket `fd` to `address` (network byte order) and `port` (host byte order), also
// across interruptions by signals. 0, or -1 with errno.
int TcpConnectWhole(int fd, std::uint32_t address, std::uint16_t port);

// Sends the whole buffer: 0, or -1 with errno. After any failure the connection is shut down: the
// rest of a message would be taken for the beginning of the next.
int TcpSendAll(int fd, const void* buffer, std::size_t length);

// How long one receiver may keep its sender waiting as a whole: `base`, and `per_mib` for each MiB
// that is sent. Only the time in which the receiver takes nothing counts, not the sender's own work
// between two sends.
struct TcpPatience {
    std::chrono::nanoseconds base = std::chrono::seconds(20);
    std::chrono::nanoseconds per_mib = std::chrono::seconds(1);
    std::size_t sent = 0;                // bytes, so far
    std::chrono::nanoseconds waited{0};  // so far
};

// As TcpSendAll, but within what is left of `patience`, whatever the descriptor's own time-out: -1
// with EAGAIN when that is used up, also if the receiver takes a little now and then.
int TcpSendAllWithin(int fd, const void* buffer, std::size_t length, TcpPatience& patience);

// Receives exactly `length` bytes: `length`, or -1 (error, time-out, or closed by the peer).
int TcpRecvAll(int fd, void* buffer, std::size_t length);

// The same with 0 for success.
int TcpRecvExact(int fd, void* buffer, std::size_t length);

// Sends until all is sent or a send fails or takes nothing: the number of bytes sent.
std::size_t TcpSendSome(int fd, const void* buffer, std::size_t length);

// Receives until all is there or the connection ends, fails or times out: the number of bytes
// received.
std::size_t TcpRecvPart(int fd, void* buffer, std::size_t length);

// As TcpRecvAll.
int TcpRecvSome(int fd, void* buffer, std::size_t length);

// Shuts both directions down, then closes. Returns 0.
int TcpClose(int fd);

// Ends the sending side and waits, at most so long, until the peer has ended its own: by then it
// has read all that was sent. Whether it has. The descriptor is still to be closed.
bool TcpAwaitEnd(int fd, std::chrono::milliseconds longest);

// Whether the peer has ended its sending side, or the connection has failed. Does not wait.
bool TcpPeerHasEnded(int fd);

// Sets both time-outs. Returns 0, whatever the system says.
int TcpSetTimeout(int fd, long seconds, long microseconds);

// Sets keep-alive on or off and its three values (seconds, seconds, probes). Returns 1.
int TcpSetKeepAlive(int fd, bool enable, int idle, int interval, int count);

// Sets receive and send buffer size in bytes; the result of the second call.
int TcpSetBufferSize(int fd, int size);

// Accepts one connection on a listener of its own. Returns its descriptor, or -1; prints
// "err: build listen" on standard output when there is no listener.
int TcpListenAccept(const char* address, std::uint16_t port, int timeout);
