// A small process plug-in for testing the host without the SMB plug-in. It makes a record for
// every TCP packet with payload, counts payload bytes per flow, takes a name from payloads
// that start with "N:", splits flows by payloads that start with "F:<digit>" (or gives them the
// flow hash <digit> whatever their connection with "H:<digit>"), takes its update
// hook off flows that have seen more than ten packets without a record, and counts every
// call so that tests can check the host's side of the contract. With the parameter `kinds`
// it registers one more field of each kind a host presents: numbers of 2 and 8 bytes, a
// number with a text of its own, and octets.
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "fake_plugin.h"
#include "host_interface.h"

#ifndef FAKE_API_VERSION
#define FAKE_API_VERSION CORVANE_API_VERSION
#endif

namespace {

struct fake_record {
    uint32_t bytes;
    uint32_t packets;
    uint8_t name[128];  // UTF-16LE
    int has_name;
    pthread_t maker;  // the thread that allocated the record
    uint8_t postprocessed;
};

struct fake_ctx {
    uint32_t id;
    uint32_t queue_id;
};

fake_plugin_stats g_stats;

// Queues may run on several threads.
#define BUMP(field) __atomic_add_fetch(&g_stats.field, 1, __ATOMIC_RELAXED)
#define DROP(field) __atomic_sub_fetch(&g_stats.field, 1, __ATOMIC_RELAXED)

fake_record *new_record() {
    BUMP(records_made);
    BUMP(records_alive);
    auto *rec = static_cast<fake_record *>(calloc(1, sizeof(fake_record)));
    rec->maker = pthread_self();
    return rec;
}

void *fake_update(void *qctx, host_packet *pkt, host_flow_record *flow, host_slot *pkt_slot,
                  host_slot *flow_slot);

int fake_filter(void *, host_packet *pkt, void *, host_slot *slot) {
    BUMP(filter_calls);
    const host_counters &own = pkt->dir_counters[pkt->flags & 1];
    const host_counters &other = pkt->dir_counters[(pkt->flags & 1) ^ 1];
    if (own.packets != 1 || own.bytes == 0 || other.packets != 0 || other.bytes != 0)
        BUMP(bad_counters);
    if (pkt->protocol != 6 || pkt->payload_offset >= pkt->length) return 0;
    const uint8_t *payload = pkt->data + pkt->payload_offset;
    const size_t len = pkt->length - pkt->payload_offset;
    if (len >= 3 && payload[0] == 'F' && payload[1] == ':')
        pkt->flow_hash = pkt->flow_hash * 31 + payload[2];
    if (len >= 3 && payload[0] == 'H' && payload[1] == ':') pkt->flow_hash = payload[2];
    fake_record *rec = new_record();
    rec->bytes = static_cast<uint32_t>(len);
    rec->packets = 1;
    if (len > 2 && payload[0] == 'N' && payload[1] == ':') {
        for (size_t i = 2; i < len && i - 2 < 63; ++i)
            rec->name[2 * (i - 2)] = payload[i];
        rec->has_name = 1;
    }
    *slot = rec;
    pkt->flags |= HOST_FLAG_SMB_RECORD | HOST_FLAG_SMB_PORT;
    return 0;
}

void *fake_update(void *qctx, host_packet *pkt, host_flow_record *flow, host_slot *pkt_slot,
                  host_slot *flow_slot) {
    BUMP(update_calls);
    if (pkt->src_port != pkt->dst_port) {
        const bool other_way = pkt->dst_port != flow->dst_port;
        if (other_way != ((pkt->flags & 1) != 0)) BUMP(bad_direction);
    }
    auto *p = static_cast<fake_record *>(*pkt_slot);
    auto *f = static_cast<fake_record *>(*flow_slot);
    if (!f) {
        if (p) {
            *flow_slot = p;
            *pkt_slot = nullptr;
            flow->flags |= HOST_FLAG_SMB_RECORD;
            return p;
        }
        if (flow->dir_counters[0].packets + flow->dir_counters[1].packets > 10) {
            BUMP(update_removals);
            return corvane_hook_update_remove(flow, static_cast<fake_ctx *>(qctx)->queue_id,
                                              fake_update);
        }
        return nullptr;
    }
    if (p) {
        f->bytes += p->bytes;
        f->packets += 1;
    }
    return f;
}

void fake_release(void *, void *, host_slot *src, void *, host_slot *dst, int copy) {
    BUMP(release_calls);
    if (!copy || !*src) return;
    fake_record *rec = new_record();
    memcpy(rec, *src, sizeof *rec);
    rec->maker = pthread_self();
    *dst = rec;
}

void fake_callback(void *, host_slot *slot) {
    if (!*slot) return;
    BUMP(callbacks);
    DROP(records_alive);
    if (!pthread_equal(static_cast<fake_record *>(*slot)->maker, pthread_self()))
        BUMP(callbacks_elsewhere);
    free(*slot);
    *slot = nullptr;
}

int fake_postprocess(void *, host_flow_record *, host_slot *slot) {
    BUMP(postprocess_calls);
    if (auto *rec = static_cast<fake_record *>(*slot)) rec->postprocessed = 1;
    return 0;
}

fake_record *record_of(host_slot *slot) {
    return static_cast<fake_record *>(*slot);
}

int valid_if_record(void *, host_flow_record *, host_slot *slot) {
    return record_of(slot) != nullptr;
}
int valid_if_name(void *, host_flow_record *, host_slot *slot) {
    return record_of(slot) && record_of(slot)->has_name;
}
template <int size>
int length(void *, host_flow_record *, host_slot *slot) {
    BUMP(length_calls);
    return record_of(slot) ? size : 0;
}

// Hands one member of the record to one of the host's record writers.
template <auto member, auto writer>
void fill(void *, host_flow_record *, host_slot *slot, void *out, uint32_t a, uint32_t b) {
    if (fake_record *r = record_of(slot)) writer(out, &(r->*member), sizeof(r->*member), a, b);
}
// The values of the `kinds` fields, made from the record's two counters.
void fill_packets16(void *, host_flow_record *, host_slot *slot, void *out, uint32_t a,
                    uint32_t b) {
    if (fake_record *r = record_of(slot)) {
        const auto v = static_cast<uint16_t>(r->packets);
        record_universal_get_num(out, &v, 2, a, b);
    }
}
uint64_t big_value(const fake_record *r) {
    return (uint64_t{r->bytes} << 32) | r->packets;
}
template <auto writer>
void fill_big(void *, host_flow_record *, host_slot *slot, void *out, uint32_t a, uint32_t b) {
    if (fake_record *r = record_of(slot)) {
        const uint64_t v = big_value(r);
        writer(out, &v, 8, a, b);
    }
}
uint32_t status_value(const fake_record *r) {
    return 0xc0000000u | r->bytes;
}
void fill_status(void *, host_flow_record *, host_slot *slot, void *out, uint32_t a, uint32_t b) {
    if (fake_record *r = record_of(slot)) {
        const uint32_t v = status_value(r);
        record_universal_get_num(out, &v, 4, a, b);
    }
}
// The status as "0x%08x", written as a UTF-16LE buffer like a name.
void fill_status_txt(void *, host_flow_record *, host_slot *slot, void *out, uint32_t a,
                     uint32_t b) {
    fake_record *r = record_of(slot);
    if (!r) return;
    static const char hex[] = "0123456789abcdef";
    uint8_t text[128] = {'0', 0, 'x', 0};
    const uint32_t v = status_value(r);
    for (int i = 0; i < 8; ++i)
        text[4 + 2 * i] = static_cast<uint8_t>(hex[(v >> (28 - 4 * i)) & 15]);
    record_universal_get_txt_string(out, text, sizeof text, a, b);
}
// 16 octets: the byte count (little-endian), then 0xab.
void fill_tag(void *, host_flow_record *, host_slot *slot, void *out, uint32_t a, uint32_t b) {
    if (fake_record *r = record_of(slot)) {
        uint8_t tag[16];
        memset(tag, 0xab, sizeof tag);
        memcpy(tag, &r->bytes, 4);
        record_universal_get_array(out, tag, sizeof tag, a, b);
    }
}

// Valid whenever there is a record, but writes nothing: the host must export no value.
void fill_nothing(void *, host_flow_record *, host_slot *, void *, uint32_t, uint32_t) {}

const uint32_t kBytesDefault = 0xffffffffu;
const uint8_t kSilentDefault = 7;
const uint8_t kPostDefault = 9;

void *fake_init(uint32_t id, const char *params, void *host, uint32_t) {
    BUMP(init_calls);
    strncpy(g_stats.last_params, params ? params : "(null)", sizeof g_stats.last_params - 1);
    auto *ctx = static_cast<fake_ctx *>(calloc(1, sizeof(fake_ctx)));
    ctx->id = id;
    constexpr auto kNumber = CORVANE_FIELD_NUMBER;
    void *f = corvane_getter_add(host, id, ~0u, "FAKE_BYTES", kNumber, 4, 0, ctx, valid_if_record,
                                 length<4>, fill<&fake_record::bytes, record_universal_get_num>,
                                 fill<&fake_record::bytes, record_universal_get_txt_num>, 0);
    corvane_getter_set_default(f, &kBytesDefault, 4);
    corvane_getter_add(host, id, ~0u, "FAKE_NAME", CORVANE_FIELD_STRING, 128, 0, ctx, valid_if_name,
                       length<128>, fill<&fake_record::name, record_universal_get_array>,
                       fill<&fake_record::name, record_universal_get_txt_string>, 0);
    f = corvane_getter_add(host, id, ~0u, "FAKE_SILENT", kNumber, 1, 0, ctx, valid_if_record,
                           length<1>, fill_nothing, fill_nothing, 0);
    corvane_getter_set_default(f, &kSilentDefault, 1);
    f = corvane_getter_add(host, id, ~0u, "FAKE_POST", kNumber, 1, 0, ctx, valid_if_record,
                           length<1>, fill<&fake_record::postprocessed, record_universal_get_num>,
                           fill<&fake_record::postprocessed, record_universal_get_txt_num>, 0);
    corvane_getter_set_default(f, &kPostDefault, 1);
    if (params && strstr(params, "kinds")) {
        corvane_getter_add(host, id, ~0u, "FAKE_PACKETS16", kNumber, 2, 0, ctx, valid_if_record,
                           length<2>, fill_packets16, nullptr, 0);
        corvane_getter_add(host, id, ~0u, "FAKE_BIG", kNumber, 8, 0, ctx, valid_if_record,
                           length<8>, fill_big<record_universal_get_num>,
                           fill_big<record_universal_get_txt_num>, 0);
        corvane_getter_add(host, id, ~0u, "FAKE_STATUS", kNumber, 4, 0, ctx, valid_if_record,
                           length<4>, fill_status, fill_status_txt, 0);
        corvane_getter_add(host, id, ~0u, "FAKE_TAG", CORVANE_FIELD_OCTETS, 16, 0, ctx,
                           valid_if_record, length<16>, fill_tag, nullptr, 0);
    }
    corvane_hook_postprocess(ctx, id, fake_postprocess);
    corvane_hook_callback(ctx, id, fake_callback);
    return ctx;
}

void *fake_init_queue(uint32_t id, void *plugin_ctx, uint32_t queue_id) {
    BUMP(init_queue_calls);
    auto *q = static_cast<fake_ctx *>(calloc(1, sizeof(fake_ctx)));
    *q = *static_cast<fake_ctx *>(plugin_ctx);
    q->queue_id = queue_id;
    corvane_hook_queue_filter(q, id, fake_filter);
    corvane_hook_queue_update(q, id, fake_update);
    corvane_hook_queue_release(q, id, fake_release);
    return q;
}

void fake_shutdown_queue(void *q) {
    BUMP(shutdown_queue_calls);
    free(q);
}

void fake_shutdown(void *ctx) {
    BUMP(shutdown_calls);
    free(ctx);
}

const corvane_plugin_desc fake_descriptor = {
    2,         "fake",          "fake plug-in for host tests", FAKE_API_VERSION, 2,
    fake_init, fake_init_queue, fake_shutdown_queue,           fake_shutdown,    {},
};

}  // namespace

CV_EXPORT_DATA const uint32_t corvane_api_version = FAKE_API_VERSION;

CV_EXPORT int corvane_module_init(void *a1, void *a2, void *a3, void *a4) {
    return corvane_plugin_add(const_cast<corvane_plugin_desc *>(&fake_descriptor), a1, a2, a3, a4);
}

CV_EXPORT const fake_plugin_stats *fake_plugin_stats_get(void) {
    return &g_stats;
}
CV_EXPORT void fake_plugin_stats_reset(void) {
    memset(&g_stats, 0, sizeof g_stats);
}
