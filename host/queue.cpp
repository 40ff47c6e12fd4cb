#include "queue.h"

#include <algorithm>
#include <tuple>

#include "registration.h"

namespace corvane_host {

namespace {

// Order of export when several flows leave at once: by start time, then by key, so that the
// same input gives the same order however packets were spread over queues.
bool export_before(const std::pair<const FlowKey *, const host_flow_record *> &x,
                   const std::pair<const FlowKey *, const host_flow_record *> &y) {
    const FlowKey &a = *x.first;
    const FlowKey &b = *y.first;
    return std::tie(x.second->first_ns, a.conn.ip_version, a.conn.addr_a, a.conn.port_a,
                    a.conn.addr_b, a.conn.port_b, a.conn.protocol, a.hash) <
           std::tie(y.second->first_ns, b.conn.ip_version, b.conn.addr_a, b.conn.port_a,
                    b.conn.addr_b, b.conn.port_b, b.conn.protocol, b.hash);
}

}  // namespace

Queue::Queue(Host &host, uint32_t queue_id, QueueConfig config, FlowSink sink)
    : host_(host), id_(queue_id), config_(config), sink_(std::move(sink)) {
    host_.queue_opened();
    plugin_count_ = host_.plugin_count();
    for (size_t i = 0; i < plugin_count_; ++i) {
        PluginInstance &p = host_.plugin(i);
        plugins_[i] = &p;
        RegistrationScope scope;
        scope.phase = RegistrationScope::Phase::QueueInit;
        scope.host_handle = &host_;
        scope.plugin = &p;
        scope.queue = &hooks_[i];
        scope.problems = &host_.problems();
        ScopeGuard guard(&scope);
        hooks_[i].queue_ctx = p.desc->init_queue(p.id, p.ctx, queue_id);
    }
}

Queue::~Queue() {
    flows_.for_each([&](FlowEntry &e) {
        for (size_t i = 0; i < host_.plugin_count(); ++i)
            host_.plugin(i).free_slot(&e.second.slots[i]);
    });
    flows_.clear();
    for (size_t i = 0; i < host_.plugin_count(); ++i)
        host_.plugin(i).desc->shutdown_queue(hooks_[i].queue_ctx);
    host_.queue_closed();
}

bool Queue::timed_out(const Flow &flow, uint64_t now_ns) const {
    return (now_ns > flow.rec.last_ns &&
            now_ns - flow.rec.last_ns >= config_.inactive_timeout_ns) ||
           (now_ns > flow.rec.first_ns && now_ns - flow.rec.first_ns >= config_.active_timeout_ns);
}

namespace {

uint64_t saturating_add(uint64_t a, uint64_t b) {
    return a > UINT64_MAX - b ? UINT64_MAX : a + b;
}

}  // namespace

uint64_t Queue::deadline(const Flow &flow) const {
    return std::min(saturating_add(flow.rec.last_ns, config_.inactive_timeout_ns),
                    saturating_add(flow.rec.first_ns, config_.active_timeout_ns));
}

void Queue::drop(FlowEntry *e) {
    timeouts_.remove(e);
    flows_.erase(e);
}

void Queue::process(host_packet &pkt, uint64_t bytes) {
    const uint64_t now = pkt.timestamp_ns;
    advance(now);
    ++stats_.packets;

    // The connection's first packet fixes which way is "the other way" until the flow
    // record is known; after the filter hooks the flow record's own first packet decides.
    bool from_a;
    ConnKey ck = oriented_key(pkt, from_a);
    // Packets come in runs of one connection (a request, its response, their ACKs): the last
    // packet's entry is checked before the table is asked. Entries never move; one that was
    // erased and taken again has another key, which the comparison catches.
    ConnEntry *conn_entry = last_conn_;
    bool conn_new = false;
    if (!conn_entry || !(conn_entry->first == ck)) {
        std::tie(conn_entry, conn_new) = conns_.try_emplace(ck);
        last_conn_ = conn_entry;
    }
    Conn &conn = conn_entry->second;
    if (conn_new) conn.digest = conn_hash(ck);
    ck.digest = conn.digest;
    if (conn_new || (now > conn.last_ns && now - conn.last_ns >= config_.inactive_timeout_ns))
        conn.first_from_a = from_a;
    conn.last_ns = std::max(conn.last_ns, now);
    const unsigned pre_dir = from_a != conn.first_from_a;

    pkt.flow_hash = ck.digest;
    pkt.flags = static_cast<uint16_t>(pre_dir);
    pkt.dir_counters[0] = {};
    pkt.dir_counters[1] = {};
    pkt.dir_counters[pre_dir] = {1, bytes};

    // The flow's key is known once the filter hooks have run; it is usually the connection's
    // own hash, whose index slot is fetched meanwhile unless the last flow has that key.
    auto *last = static_cast<FlowEntry *>(conn.last_flow);
    if (last && last->second.serial != conn.last_serial) last = nullptr;
    if (!last || last->first.hash != ck.digest) flows_.prefetch(FlowKey{ck, ck.digest});

    const size_t n = plugin_count_;
    std::array<host_slot, kMaxPlugins> pkt_slots{};
    for (size_t i = 0; i < n; ++i)
        if (hooks_[i].filter) hooks_[i].filter(hooks_[i].filter_ctx, &pkt, nullptr, &pkt_slots[i]);
    if (pkt.flags & HOST_FLAG_SMB_PORT) ++stats_.smb_port_packets;
    if (pkt.flags & HOST_FLAG_SMB_RECORD) ++stats_.smb_record_packets;

    FlowEntry *it = last;
    if (!it || it->first.hash != pkt.flow_hash) it = flows_.find(FlowKey{ck, pkt.flow_hash});
    if (it && timed_out(it->second, now)) {
        const bool active = !(now - it->second.rec.last_ns >= config_.inactive_timeout_ns);
        hand_off(it->first, it->second, active ? ExportReason::Active : ExportReason::Inactive);
        drop(it);
        it = nullptr;
    }
    if (!it) {
        it = flows_.try_emplace(FlowKey{ck, pkt.flow_hash}).first;
        Flow &f = it->second;
        f.serial = ++stats_.flows_created;
        f.src_is_a = from_a;
        f.rec.src_addr = pkt.src_addr;
        f.rec.dst_addr = pkt.dst_addr;
        f.rec.src_port = pkt.src_port;
        f.rec.dst_port = pkt.dst_port;
        f.rec.ip_version = pkt.ip_version;
        f.rec.protocol = pkt.protocol;
        f.rec.first_ns = now;
        f.rec.last_ns = now;
        timeouts_.push(it, deadline(f));
    }
    conn.last_flow = it;
    conn.last_serial = it->second.serial;
    Flow &flow = it->second;
    const unsigned dir = from_a != flow.src_is_a;
    pkt.flags = static_cast<uint16_t>((pkt.flags & ~HOST_FLAG_DIRECTION) | dir);

    // The update hooks see the flow's counters as they were before this packet: a plug-in
    // learns from them whether this is the first packet of its direction (an SMB1 record
    // takes the response's command only then) and how many packets came before.
    for (size_t i = 0; i < n; ++i) {
        const QueueHooks &h = hooks_[i];
        if (!h.update || (flow.update_off & (1u << i))) continue;
        UpdateCall call{&flow.rec, id_, h.update, false};
        {
            UpdateGuard guard(&call);
            h.update(h.update_ctx, &pkt, &flow.rec, &pkt_slots[i], &flow.slots[i]);
        }
        if (call.removed) {
            flow.update_off |= 1u << i;
            ++stats_.update_removals;
        }
    }
    flow.rec.dir_counters[dir].packets += pkt.dir_counters[pre_dir].packets;
    flow.rec.dir_counters[dir].bytes += pkt.dir_counters[pre_dir].bytes;
    flow.rec.tcp_flags[dir] |= pkt.tcp_flags;
    flow.rec.last_ns = std::max(flow.rec.last_ns, now);
    // Most packets' records went into the flow's slot: the plug-in is not looked at for those.
    for (size_t i = 0; i < n; ++i)
        if (pkt_slots[i]) plugins_[i]->free_slot(&pkt_slots[i]);
}

void Queue::hand_off(const FlowKey &key, Flow &flow, ExportReason reason) {
    FlowHandoff out;
    out.rec = flow.rec;
    out.flow_hash = key.hash;
    out.reason = reason;
    // The flow leaves the cache here, so its records move with it rather than through the
    // plug-ins' release hooks: a release copy would be made only for the flow's own record to
    // be freed right after, one allocation, one copy of the record and its names and as many
    // frees per exported flow. The slot is left empty so that the cache never frees it.
    for (size_t i = 0; i < host_.plugin_count(); ++i) {
        out.slots[i] = flow.slots[i];
        flow.slots[i] = nullptr;
    }
    ++stats_.flows_exported;
    sink_(std::move(out));
}

void Queue::advance(uint64_t now_ns) {
    if (now_ns <= clock_ns_) return;
    clock_ns_ = now_ns;
    if (clock_ns_ >= next_sweep_ns_) {
        if (next_sweep_ns_ != 0) sweep(clock_ns_);
        next_sweep_ns_ = clock_ns_ + config_.sweep_interval_ns;
    }
}

// The victims are out of the timeout heap already.
void Queue::export_sorted(uint64_t now_ns, bool end) {
    // Start times mostly differ: they decide without a look at the entries.
    std::sort(victims_.begin(), victims_.end(), [](const Victim &x, const Victim &y) {
        if (x.first_ns != y.first_ns) return x.first_ns < y.first_ns;
        return export_before({&x.entry->first, &x.entry->second.rec},
                             {&y.entry->first, &y.entry->second.rec});
    });
    for (const Victim &v : victims_) {
        FlowEntry *it = v.entry;
        ExportReason reason = ExportReason::End;
        if (!end)
            reason = now_ns - it->second.rec.last_ns >= config_.inactive_timeout_ns
                         ? ExportReason::Inactive
                         : ExportReason::Active;
        hand_off(it->first, it->second, reason);
        flows_.erase(it);
    }
    victims_.clear();
}

void Queue::sweep(uint64_t now_ns) {
    while (!timeouts_.empty() && timeouts_.top_due() <= now_ns) {
        FlowEntry *entry = timeouts_.top();
        if (timed_out(entry->second, now_ns)) {
            timeouts_.remove(entry);
            victims_.push_back({entry->second.rec.first_ns, entry});
        } else {
            // Due but not timed out: later packets moved the timeout on (or, with a zero
            // timeout, the last packet is stamped with the current time: look again later).
            timeouts_.refile_top(std::max(deadline(entry->second), now_ns + 1));
        }
    }
    export_sorted(now_ns, false);
    // A connection entry only remembers which way its first packet went, and process()
    // ignores an expired one; dropping them is for memory and need not be done every sweep.
    if (now_ns >= next_conn_sweep_ns_) {
        std::vector<ConnEntry *> idle;
        conns_.for_each([&](auto &entry) {
            if (now_ns > entry.second.last_ns &&
                now_ns - entry.second.last_ns >= config_.inactive_timeout_ns)
                idle.push_back(&entry);
        });
        for (auto *entry : idle)
            conns_.erase(entry);
        last_conn_ = nullptr;
        next_conn_sweep_ns_ =
            now_ns + std::max(config_.sweep_interval_ns, config_.inactive_timeout_ns / 4);
    }
}

void Queue::flush() {
    timeouts_.clear();
    flows_.for_each([&](FlowEntry &e) { victims_.push_back({e.second.rec.first_ns, &e}); });
    export_sorted(clock_ns_, true);
    conns_.clear();
    last_conn_ = nullptr;
}

}  // namespace corvane_host
