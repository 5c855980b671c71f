// SPDX-License-Identifier: Apache-2.0

// Brings the MAC table up to date before the API reads it. Each request to the operational database makes the module
// ask the forwarding plane for a resync and wait for its end. Errors of the database become errors of the API here.
//
//      resync_requester resyncs;
//      resyncs.resync_domain("lab:br0");
//      ... read the table ...
//
// Threads: any thread may call every function. A resync may take the whole resync wait time. give_up() ends the wait
// when the daemon ends.
#pragma once

#include <atomic>
#include <cstdint>
#include <set>
#include <string_view>

#include "base/mutex.h"
#include "daemon/api/metrics/duration_histogram.h"
#include "host/database/operational_db_host.h"

namespace l2fibd {

class resync_requester {
public:
    // Bring a scope up to date. Throw api_error if that failed.
    void resync_all() L2FIB_EXCLUDES(lock_);
    void resync_domain(std::string_view domain) L2FIB_EXCLUDES(lock_);
    void resync_port(uint32_t xcid, std::string_view domain) L2FIB_EXCLUDES(lock_);

    // Cancels the requests under way and all later ones. They end with ECANCELED.
    void give_up() L2FIB_EXCLUDES(lock_);
    bool is_given_up() const L2FIB_EXCLUDES(lock_);

    // How long requests waited for their resyncs, failed ones included.
    duration_histogram::reading durations() const { return durations_.read(); }
    // When a resync last succeeded, in seconds since the epoch. 0: never.
    int64_t last_resync() const { return last_resync_; }

private:
    class registration;

    void request(const host::operational_request &wanted) L2FIB_EXCLUDES(lock_);
    void insert(host::operational_session *session) L2FIB_EXCLUDES(lock_);
    void erase(host::operational_session *session) L2FIB_EXCLUDES(lock_);

    mutable base::mutex lock_;
    std::set<host::operational_session *> sessions_ L2FIB_GUARDED_BY(lock_); // under way
    bool is_given_up_ L2FIB_GUARDED_BY(lock_) = false;
    duration_histogram durations_;
    std::atomic<int64_t> last_resync_{0};
};

} // namespace l2fibd
