#include "smb_data_table.h"

#include <string.h>

#include <algorithm>

datatable *datatable_create(int32_t size) {
    return smb::create_table<datatable>(size);
}

void datatable_free(datatable *t) {
    smb::free_table(t);
}

void datatable_insert(datatable *t, uint32_t tree_id, uint64_t file_id, uint32_t client_addr,
                      uint16_t client_port, uint8_t is_response) {
    data_record &r = t->replace({client_addr, client_port, is_response});
    r.tree_id = tree_id;
    r.file_id = file_id;
}

void datatable_save_data(datatable *t, uint32_t client_addr, uint16_t client_port,
                         uint8_t is_response, uint32_t total_length, const void *data,
                         uint32_t length, uint32_t byte_counter) {
    data_record &r = t->replace({client_addr, client_port, is_response});
    length = std::min(length, total_length);
    r.total_length = total_length;
    r.saved_length = length;
    r.segments = 1;
    r.segment_bytes = byte_counter;
    r.buffer = static_cast<uint8_t *>(corvaneexp_malloc(total_length, 0));
    if (length) memcpy(r.buffer, data, length);
}

int32_t datatable_get_ids(datatable *t, uint32_t client_addr, uint16_t client_port,
                          uint8_t is_response, uint32_t *tree_id, uint64_t *file_id,
                          uint32_t *total_length, uint8_t **buffer, uint32_t *saved_length,
                          uint32_t *segments, uint32_t *segment_bytes) {
    const data_record *r = t->find({client_addr, client_port, is_response});
    if (!r) return -1;
    if (total_length) *total_length = r->total_length;
    if (saved_length) *saved_length = r->saved_length;
    if (r->buffer) {
        if (buffer) *buffer = r->buffer;
        if (segments) *segments = r->segments;
        if (segment_bytes) *segment_bytes = r->segment_bytes;
        return 1;
    }
    if (tree_id) *tree_id = r->tree_id;
    if (file_id) *file_id = r->file_id;
    return 0;
}

void datatable_update_data_len(datatable *t, uint32_t client_addr, uint16_t client_port,
                               uint8_t is_response, uint32_t saved_length, uint32_t byte_counter) {
    data_record *r = t->find({client_addr, client_port, is_response});
    if (!r) return;
    r->segments += 1;
    r->saved_length = saved_length;
    r->segment_bytes += byte_counter;
}

void datatable_remove_record(datatable *t, uint32_t client_addr, uint16_t client_port,
                             uint8_t is_response) {
    t->remove({client_addr, client_port, is_response});
}

datatable_continuation datatable_continue(datatable *t, uint32_t client_addr, uint16_t client_port,
                                          uint8_t is_response, std::span<const uint8_t> payload,
                                          uint32_t byte_counter,
                                          std::span<uint8_t, kDataMessageMax> message) {
    datatable_continuation c{};
    uint8_t *buffer = nullptr;
    uint32_t saved = 0;
    c.result = datatable_get_ids(t, client_addr, client_port, is_response, &c.tree_id, &c.file_id,
                                 &c.total_length, &buffer, &saved, &c.segments, &c.segment_bytes);
    if (c.result != 1) {
        c.segments = 0;
        c.segment_bytes = 0;
        return c;
    }
    const uint32_t total = c.total_length;
    saved = std::min(saved, total);
    const size_t missing = total - saved;
    const size_t appended = std::min(payload.size(), missing);
    if (appended) memcpy(buffer + saved, payload.data(), appended);
    if (appended < missing) {
        datatable_update_data_len(t, client_addr, client_port, is_response,
                                  saved + uint32_t(appended), byte_counter);
        c.segments = 0;
        c.segment_bytes = 0;
        return c;
    }
    c.total_length = std::min(total, kDataMessageMax);
    memcpy(message.data(), buffer, c.total_length);
    datatable_remove_record(t, client_addr, client_port, is_response);
    c.result = 2;
    return c;
}
