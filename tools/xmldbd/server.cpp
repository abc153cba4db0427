#include "tools/xmldbd/server.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "port/common/unique_fd.h"
#include "tools/xmldbd/request.h"

namespace xmldbd {
namespace {

using Clock = std::chrono::steady_clock;
using kestr::UniqueFd;

// One byte more than the longest request, so that a client sending more than
// it announced is seen doing so.
constexpr size_t kInputCapacity = kHeaderSize + kMaxArgument + 1;

struct Client {
    UniqueFd fd;
    unsigned id = 0;
    Clock::time_point deadline;
    std::vector<uint8_t> in;
    std::string out;  // the answer, once the request is complete
    size_t sent = 0;
    bool answering = false;
    bool done = false;
};

void say(const Client& c, const std::string& what) {
    std::fprintf(stderr, "xmldbd: client %u: %s; connection closed\n", c.id, what.c_str());
}

// Sends what the socket takes now; done once all of the answer has gone or
// the client has gone away.
void push_answer(Client& c) {
    while (c.sent < c.out.size()) {
        const ssize_t n =
            send(c.fd.get(), c.out.data() + c.sent, c.out.size() - c.sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return;
        if (n <= 0)
            break;  // the client left without its answer: nothing to tell
        c.sent += static_cast<size_t>(n);
    }
    c.done = true;
}

void take_input(ConfigTree& tree, Client& c) {
    bool eof = false;
    while (c.in.size() < kInputCapacity) {
        uint8_t chunk[kInputCapacity];
        const ssize_t n = read(c.fd.get(), chunk, kInputCapacity - c.in.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        if (n <= 0) {
            eof = true;
            break;
        }
        c.in.insert(c.in.end(), chunk, chunk + n);
    }

    const Framing f = check_request(c.in.data(), c.in.size());
    if (f.kind == Framing::Bad) {
        say(c, f.problem);
        c.done = true;
    } else if (f.kind == Framing::Complete) {
        std::string log;
        c.out = answer(tree, c.in.data(), &log);
        if (!log.empty())
            std::fprintf(stderr, "xmldbd: client %u: %s\n", c.id, log.c_str());
        c.answering = true;
        push_answer(c);
    } else if (eof) {
        const std::string why = describe_eof(c.in.data(), c.in.size());
        if (!why.empty())
            say(c, why);
        c.done = true;
    }
}

void accept_clients(int listen_fd, std::list<Client>& clients, const ServerOptions& options,
                    unsigned& next_id) {
    while (clients.size() < options.max_clients) {
        UniqueFd fd(accept4(listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!fd.valid()) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                std::fprintf(stderr, "xmldbd: accept: %s\n", std::strerror(errno));
            }
            return;
        }
        Client& c = clients.emplace_back();
        c.fd = std::move(fd);
        c.id = ++next_id;
        c.deadline = Clock::now() + options.stall_limit;
        c.in.reserve(kInputCapacity);
    }
}

// Time until the first deadline, at most a second.
struct timespec wait_time(const std::list<Client>& clients) {
    auto wait = std::chrono::milliseconds(1000);
    const auto now = Clock::now();
    for (const Client& c : clients) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(c.deadline - now);
        wait = std::max(std::chrono::milliseconds(0), std::min(wait, left));
    }
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(wait.count() / 1000);
    ts.tv_nsec = static_cast<long>(wait.count() % 1000) * 1000000L;
    return ts;
}

}  // namespace

void serve(ConfigTree& tree, int listen_fd, const ServerOptions& options,
           const std::atomic<int>& stop, const sigset_t* wait_mask) {
    std::list<Client> clients;
    unsigned next_id = 0;
    std::vector<struct pollfd> fds;
    std::vector<Client*> polled;

    while (!stop.load()) {
        fds.clear();
        polled.clear();
        // A full table leaves newcomers in the backlog until a slot frees up.
        const bool listening = clients.size() < options.max_clients;
        fds.push_back({listen_fd, static_cast<short>(listening ? POLLIN : 0), 0});
        for (Client& c : clients) {
            fds.push_back({c.fd.get(), static_cast<short>(c.answering ? POLLOUT : POLLIN), 0});
            polled.push_back(&c);
        }
        const struct timespec wait = wait_time(clients);
        const int ready = ppoll(fds.data(), fds.size(), &wait, wait_mask);
        if (ready < 0) {
            if (errno != EINTR)
                std::fprintf(stderr, "xmldbd: poll: %s\n", std::strerror(errno));
            continue;
        }

        for (size_t i = 0; i < polled.size(); ++i) {
            Client& c = *polled[i];
            if (fds[i + 1].revents == 0)
                continue;
            if (c.answering) {
                push_answer(c);
            } else {
                take_input(tree, c);
            }
        }
        if (fds[0].revents & POLLIN)
            accept_clients(listen_fd, clients, options, next_id);

        const auto now = Clock::now();
        for (Client& c : clients) {
            if (!c.done && now >= c.deadline) {
                say(c, c.answering ? "answer not taken in time" : "no complete request in time");
                c.done = true;
            }
        }
        clients.remove_if([](const Client& c) { return c.done; });
    }
}

}  // namespace xmldbd
