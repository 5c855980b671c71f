// SPDX-License-Identifier: Apache-2.0

// The kernel's own table as a peer: a bridge for each bridge domain, a virtual device for each port, fed and asked over
// rtnetlink. All of it is in a network namespace that lives as long as the table, which needs root and a kernel with
// bridges.
//
// Its table has no order and no mark. Everything is in the kernel's time, which counts as time of the thread.
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <unordered_map>
#include <vector>

#include "bench/table/contestant.h"

namespace bench {

namespace {

using answer_fn = void (*)(const nlmsghdr *message, void *cookie);

constexpr size_t message_space = 128;            // of one fed entry
constexpr size_t largest_kernel_table = 100'000; // a dump of a million entries takes a minute

struct neighbour {
    uint64_t address = 0;
    uint32_t interface = 0;
    bool is_of_bridge = false;
    bool is_permanent = false;
};

neighbour read_neighbour(const nlmsghdr *message)
{
    const auto *header = static_cast<const ndmsg *>(mnl_nlmsg_get_payload(message));
    neighbour read = {0, static_cast<uint32_t>(header->ndm_ifindex), false, (header->ndm_state & NUD_PERMANENT) != 0};
    for (const nlattr *at = static_cast<const nlattr *>(mnl_nlmsg_get_payload_offset(message, sizeof(*header)));
         mnl_attr_ok(at, static_cast<int>(static_cast<const char *>(mnl_nlmsg_get_payload_tail(message))
                                          - reinterpret_cast<const char *>(at)));
         at = mnl_attr_next(at)) {
        if (mnl_attr_get_type(at) == NDA_LLADDR) {
            read.address = address_of(static_cast<const uint8_t *>(mnl_attr_get_payload(at)));
        }
        read.is_of_bridge = read.is_of_bridge || mnl_attr_get_type(at) == NDA_MASTER;
    }
    return read;
}

class kernel_table final : public contestant {
public:
    ~kernel_table() override { leave(); }

    const char *name() const override { return "kernel"; }
    size_t capacity() const override { return largest_kernel_table; }
    bool is_in_process() const override { return false; }
    bool walks_in_order() const override { return false; }

    bool open(layout over) override
    {
        if (!enter_namespace()) {
            return false;
        }
        for (uint32_t domain = 1; domain <= over.domains; domain++) {
            const uint32_t bridge = make_link("bridge", "b" + std::to_string(domain), 0);
            if (bridge == 0) {
                leave();
                return false;
            }
            bridges_[domain] = bridge;
            for (uint32_t port = 0; port < over.ports; port++) {
                const uint32_t xcid = xcid_of(domain, port);
                const uint32_t device = make_link("veth", "p" + std::to_string(xcid), bridge);
                devices_[xcid] = device;
                xcids_[device] = xcid;
            }
        }
        return true;
    }

    void close() override { leave(); }

    uint64_t feed(entries fed) override { return feed_in(fed, 1); }
    uint64_t feed_batches(entries fed) override { return feed_in(fed, batch_size); }

    uint64_t look_up_by_domain(entries asked) override
    {
        uint64_t sum = 0;
        for (const entry &each : asked) {
            const neighbour found = look_up(each);
            sum = found.interface == 0 ? sum : add_answer(sum, found.address, xcids_[found.interface]);
        }
        return sum;
    }

    uint64_t look_up_by_port(entries asked) override
    {
        uint64_t sum = 0;
        for (const entry &each : asked) {
            const neighbour found = look_up(each);
            const bool is_there = found.interface != 0 && xcids_[found.interface] == each.xcid;
            sum = is_there ? add_answer(sum, found.address, each.xcid) : sum;
        }
        return sum;
    }

    uint64_t walk() override
    {
        ndmsg header = {};
        header.ndm_family = AF_BRIDGE;
        nlmsghdr *request = start_message(RTM_GETNEIGH, NLM_F_DUMP, header);
        visited_sum_ = 0;
        exchange(request, request->nlmsg_len, [](const nlmsghdr *message, void *cookie) {
            auto &at = *static_cast<kernel_table *>(cookie);
            const neighbour each = read_neighbour(message);
            if (each.is_of_bridge && !each.is_permanent) {
                at.visited_sum_ = add_answer(at.visited_sum_, each.address, at.xcids_[each.interface]);
            }
        });
        return visited_sum_;
    }

    uint64_t mark_all() override { return cannot; }
    uint64_t sweep_all() override { return cannot; }

    // Flushes the bridge.
    uint64_t remove_domain(uint32_t domain) override
    {
        ndmsg header = {};
        header.ndm_family = AF_BRIDGE;
        header.ndm_ifindex = static_cast<int>(bridges_[domain]);
        header.ndm_flags = NTF_SELF;
        constexpr uint16_t bulk = 0x200; // NLM_F_BULK, which older headers lack
        nlmsghdr *request = start_message(RTM_DELNEIGH, bulk | NLM_F_ACK, header);
        expect(exchange(request, request->nlmsg_len, nullptr), "flush");
        return 0;
    }

private:
    static void expect(int error, const char *what)
    {
        if (error != 0) {
            throw std::runtime_error(std::string("kernel: ") + what + " failed: " + std::to_string(error));
        }
    }

    bool enter_namespace()
    {
        former_ = ::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
        if (former_ < 0 || unshare(CLONE_NEWNET) != 0) {
            leave();
            return false;
        }
        socket_ = mnl_socket_open(NETLINK_ROUTE);
        if (socket_ == nullptr || mnl_socket_bind(socket_, 0, MNL_SOCKET_AUTOPID) != 0) {
            leave();
            return false;
        }
        return true;
    }

    // The kernel removes the namespace with everything in it when nobody uses it any more.
    void leave()
    {
        if (socket_ != nullptr) {
            mnl_socket_close(socket_);
            socket_ = nullptr;
        }
        if (former_ >= 0) {
            setns(former_, CLONE_NEWNET);
            ::close(former_);
            former_ = -1;
        }
        bridges_.clear();
        devices_.clear();
        xcids_.clear();
    }

    // Begins a message at the start of the buffer.
    template <typename Header>
    nlmsghdr *start_message(uint16_t type, uint16_t flags, const Header &header)
    {
        return put_message(buffer_.data(), type, flags, header);
    }

    template <typename Header>
    nlmsghdr *put_message(char *at, uint16_t type, uint16_t flags, const Header &header)
    {
        nlmsghdr *message = mnl_nlmsg_put_header(at);
        message->nlmsg_type = type;
        message->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
        message->nlmsg_seq = ++sequence_;
        std::memcpy(mnl_nlmsg_put_extra_header(message, sizeof(header)), &header, sizeof(header));
        return message;
    }

    // Makes a device that is up. Returns its index, or 0 if the kernel has no such kind.
    uint32_t make_link(const char *kind, const std::string &called, uint32_t master)
    {
        ifinfomsg header = {};
        header.ifi_flags = header.ifi_change = IFF_UP;
        nlmsghdr *request = start_message(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL | NLM_F_ACK, header);
        mnl_attr_put_strz(request, IFLA_IFNAME, called.c_str());
        if (master != 0) {
            mnl_attr_put_u32(request, IFLA_MASTER, master);
        }
        nlattr *info = mnl_attr_nest_start(request, IFLA_LINKINFO);
        mnl_attr_put_strz(request, IFLA_INFO_KIND, kind);
        mnl_attr_nest_end(request, info);
        const int error = exchange(request, request->nlmsg_len, nullptr);
        if (error != 0 && error != EOPNOTSUPP) {
            expect(error, "making a device");
        }
        return error != 0 ? 0 : if_nametoindex(called.c_str());
    }

    uint64_t feed_in(entries fed, size_t batch)
    {
        for (size_t at = 0; at < fed.size(); at += batch) {
            const size_t count = std::min(batch, fed.size() - at);
            size_t length = 0;
            for (size_t i = 0; i < count; i++) {
                length += put_entry(buffer_.data() + length, fed[at + i], i + 1 == count);
            }
            expect(exchange(buffer_.data(), length, nullptr), "feeding");
        }
        return fed.size();
    }

    // Only the last message of a batch is acknowledged. Returns the message's length.
    size_t put_entry(char *at, const entry &fed, bool is_last)
    {
        ndmsg header = {};
        header.ndm_family = AF_BRIDGE;
        header.ndm_ifindex = static_cast<int>(devices_[fed.xcid]);
        header.ndm_state = NUD_NOARP; // static, which a port without a carrier accepts too
        header.ndm_flags = NTF_MASTER;
        const auto flags = static_cast<uint16_t>(NLM_F_CREATE | NLM_F_REPLACE | (is_last ? NLM_F_ACK : 0));
        nlmsghdr *message = put_message(at, RTM_NEWNEIGH, flags, header);
        mnl_attr_put(message, NDA_LLADDR, sizeof(fed.mac_addr), fed.mac_addr);
        constexpr size_t alignment = NLMSG_ALIGNTO;
        return (message->nlmsg_len + alignment - 1) / alignment * alignment;
    }

    // Returns an entry without an interface if the address is absent.
    neighbour look_up(const entry &asked)
    {
        ndmsg header = {};
        header.ndm_family = AF_BRIDGE;
        nlmsghdr *request = start_message(RTM_GETNEIGH, 0, header);
        mnl_attr_put(request, NDA_LLADDR, sizeof(asked.mac_addr), asked.mac_addr);
        mnl_attr_put_u32(request, NDA_MASTER, bridges_[asked.bridge_id]);
        looked_up_ = {};
        const int error = exchange(request, request->nlmsg_len, [](const nlmsghdr *message, void *cookie) {
            static_cast<kernel_table *>(cookie)->looked_up_ = read_neighbour(message);
        });
        expect(error == ENOENT ? 0 : error, "a lookup");
        return looked_up_;
    }

    // Sends messages and reads the answer to the last one: an error, the end of a dump, or a single message. Returns
    // the error number.
    int exchange(const void *messages, size_t length, answer_fn answered)
    {
        if (mnl_socket_sendto(socket_, messages, length) < 0) {
            return errno;
        }
        for (;;) {
            const ssize_t received = mnl_socket_recvfrom(socket_, answers_.data(), answers_.size());
            if (received < 0) {
                return errno;
            }
            int left = static_cast<int>(received);
            const auto *at = reinterpret_cast<const nlmsghdr *>(answers_.data());
            for (; mnl_nlmsg_ok(at, left); at = mnl_nlmsg_next(at, &left)) {
                if (at->nlmsg_type == NLMSG_ERROR) {
                    return -static_cast<const nlmsgerr *>(mnl_nlmsg_get_payload(at))->error;
                }
                if (at->nlmsg_type == NLMSG_DONE) {
                    return 0;
                }
                if (answered != nullptr) {
                    answered(at, this);
                }
                if ((at->nlmsg_flags & NLM_F_MULTI) == 0) {
                    return 0;
                }
            }
        }
    }

    int former_ = -1; // the namespace that the process came from
    mnl_socket *socket_ = nullptr;
    uint32_t sequence_ = 0;
    std::unordered_map<uint32_t, uint32_t> bridges_; // device by bridge domain
    std::unordered_map<uint32_t, uint32_t> devices_; // by xcid
    std::unordered_map<uint32_t, uint32_t> xcids_;   // by device
    alignas(nlmsghdr) std::array<char, batch_size *message_space> buffer_ = {};
    alignas(nlmsghdr) std::array<char, 65536> answers_ = {};
    uint64_t visited_sum_ = 0;
    neighbour looked_up_;
};

} // namespace

std::unique_ptr<contestant> make_kernel()
{
    return std::make_unique<kernel_table>();
}

} // namespace bench
