#include "common/xid_internal.h"

#include <stdio.h>
#include <string.h>

#include "client/common/client_assert.h"

namespace {

constexpr const char *kUnit = "xid_internal";

static_assert(sizeof(XID::data) == XID_INTERNAL_DATA_SIZE);

char *put_big_endian(char *at, int64_t value) {
    const uint64_t swapped = __builtin_bswap64(static_cast<uint64_t>(value));
    memcpy(at, &swapped, sizeof swapped);
    return at + sizeof swapped;
}

int64_t get_big_endian(const char *at) {
    uint64_t swapped;
    memcpy(&swapped, at, sizeof swapped);
    return static_cast<int64_t>(__builtin_bswap64(swapped));
}

size_t bytes_of_part(int64_t length) {
    return length < 0                        ? 0
           : length > XID_INTERNAL_DATA_SIZE ? XID_INTERNAL_DATA_SIZE
                                             : static_cast<size_t>(length);
}

// What is used of data, whatever the lengths say.
size_t bytes_of_both(const xid_internal_t &xid) {
    const size_t bytes = bytes_of_part(xid.gtrid_length) + bytes_of_part(xid.bqual_length);
    return bytes > XID_INTERNAL_DATA_SIZE ? XID_INTERNAL_DATA_SIZE : bytes;
}

bool data_holds(int64_t gtrid_length, int64_t bqual_length) {
    return gtrid_length >= 0 && gtrid_length <= XID_INTERNAL_DATA_SIZE && bqual_length >= 0 &&
           bqual_length <= XID_INTERNAL_DATA_SIZE - gtrid_length;
}

bool same_numbers(const xid_internal_t &first, const xid_internal_t &second) {
    return first.formatID == second.formatID && first.gtrid_length == second.gtrid_length &&
           first.bqual_length == second.bqual_length;
}

int compare_bytes(const char *first, const char *second, size_t count) {
    const int order = memcmp(first, second, count);
    return (order > 0) - (order < 0);
}

char *put_part(char *at, const char *bytes, size_t count) {
    for (size_t k = 0; k < count; k++) {
        const int value = static_cast<unsigned char>(bytes[k]);
        *at++ = '/';
        *at++ = static_cast<char>('0' + value / 100);
        *at++ = static_cast<char>('0' + value / 10 % 10);
        *at++ = static_cast<char>('0' + value % 10);
    }
    *at++ = '.';
    return at;
}

} // namespace

void XID_to_xid_internal(const XID *xid, xid_internal_t *xid_internal) {
    ZD_ASSERT(kUnit, xid != NULL);
    ZD_ASSERT(kUnit, xid_internal != NULL);
    xid_internal->formatID = xid->formatID;
    xid_internal->gtrid_length = xid->gtrid_length;
    xid_internal->bqual_length = xid->bqual_length;
    memcpy(xid_internal->data, xid->data, sizeof xid_internal->data);
}

void xid_internal_to_XID(const xid_internal_t *xid_internal, XID *xid) {
    ZD_ASSERT(kUnit, xid_internal != NULL);
    ZD_ASSERT(kUnit, xid != NULL);
    xid->formatID = xid_internal->formatID;
    xid->gtrid_length = xid_internal->gtrid_length;
    xid->bqual_length = xid_internal->bqual_length;
    memcpy(xid->data, xid_internal->data, sizeof xid->data);
}

void xa_xid_internal_serialize(const xid_internal_t *xid_internal, void *buf) {
    ZD_ASSERT(kUnit, xid_internal != NULL);
    ZD_ASSERT(kUnit, buf != NULL);
    char *at = static_cast<char *>(buf);
    at = put_big_endian(at, xid_internal->formatID);
    at = put_big_endian(at, xid_internal->gtrid_length);
    at = put_big_endian(at, xid_internal->bqual_length);
    memcpy(at, xid_internal->data, sizeof xid_internal->data);
}

void xa_xid_internal_deserialize(const void *buf, xid_internal_t *xid_internal) {
    ZD_ASSERT(kUnit, xid_internal != NULL);
    ZD_ASSERT(kUnit, buf != NULL);
    const char *const bytes = static_cast<const char *>(buf);
    xid_internal->formatID = get_big_endian(bytes);
    xid_internal->gtrid_length = get_big_endian(bytes + 8);
    xid_internal->bqual_length = get_big_endian(bytes + 16);
    memcpy(xid_internal->data, bytes + 24, sizeof xid_internal->data);
}

void xa_xid_internal_compress(const xid_internal_t *xid_internal, void *buf, size_t *len) {
    ZD_ASSERT(kUnit, xid_internal != NULL);
    ZD_ASSERT(kUnit, buf != NULL);
    ZD_ASSERT(kUnit, xid_internal->gtrid_length);
    ZD_ASSERT(kUnit, xid_internal->bqual_length);
    ZD_ASSERT(kUnit, data_holds(xid_internal->gtrid_length, xid_internal->bqual_length));
    ZD_ASSERT(kUnit, len != NULL);
    const size_t used = bytes_of_both(*xid_internal);
    char *const bytes = static_cast<char *>(buf);
    memset(bytes, 0, XID_INTERNAL_SERIALIZED_SIZE);
    memcpy(bytes, &xid_internal->formatID, sizeof xid_internal->formatID);
    bytes[8] = static_cast<char>(xid_internal->gtrid_length);
    bytes[9] = static_cast<char>(xid_internal->bqual_length);
    memcpy(bytes + XID_INTERNAL_COMPRESSED_HEAD, xid_internal->data, used);
    *len = XID_INTERNAL_COMPRESSED_HEAD + used;
}

void xa_xid_internal_decompress(const void *buf, xid_internal_t *xid_internal) {
    ZD_ASSERT(kUnit, xid_internal != NULL);
    ZD_ASSERT(kUnit, buf != NULL);
    const char *const bytes = static_cast<const char *>(buf);
    const int64_t gtrid_length = static_cast<unsigned char>(bytes[8]);
    const int64_t bqual_length = static_cast<unsigned char>(bytes[9]);
    ZD_ASSERT(kUnit, data_holds(gtrid_length, bqual_length));
    memset(xid_internal, 0, sizeof *xid_internal);
    memcpy(&xid_internal->formatID, bytes, sizeof xid_internal->formatID);
    xid_internal->gtrid_length = gtrid_length;
    xid_internal->bqual_length = bqual_length;
    memcpy(xid_internal->data, bytes + XID_INTERNAL_COMPRESSED_HEAD, bytes_of_both(*xid_internal));
}

size_t xa_xid_internal_get_compressed_len(const xid_internal_t *xid_internal) {
    ZD_ASSERT(kUnit, xid_internal != NULL);
    return static_cast<size_t>(xid_internal->gtrid_length) +
           static_cast<size_t>(xid_internal->bqual_length) + XID_INTERNAL_COMPRESSED_HEAD;
}

int xa_xid_internal_compare(const xid_internal_t *xid_internal1,
                            const xid_internal_t *xid_internal2) {
    ZD_ASSERT(kUnit, xid_internal1 != NULL);
    ZD_ASSERT(kUnit, xid_internal2 != NULL);
    if (!same_numbers(*xid_internal1, *xid_internal2))
        return -1;
    return compare_bytes(xid_internal1->data, xid_internal2->data, bytes_of_both(*xid_internal1));
}

int xa_xid_internal_compare_gtrid(const xid_internal_t *xid_internal1,
                                  const xid_internal_t *xid_internal2) {
    ZD_ASSERT(kUnit, xid_internal1 != NULL);
    ZD_ASSERT(kUnit, xid_internal2 != NULL);
    if (!same_numbers(*xid_internal1, *xid_internal2))
        return -1;
    return compare_bytes(xid_internal1->data, xid_internal2->data,
                         bytes_of_part(xid_internal1->gtrid_length));
}

void xa_xid_internal_to_str(const xid_internal_t *xid_internal, char *buf, int buf_len) {
    ZD_ASSERT(kUnit, xid_internal != NULL && buf != NULL && buf_len > 0);
    if (xid_internal->gtrid_length > XID_INTERNAL_MAX_PART ||
        xid_internal->bqual_length > XID_INTERNAL_MAX_PART)
        return;
    const size_t gtrid_bytes = bytes_of_part(xid_internal->gtrid_length);
    // Both parts with four characters a byte and their dots, the number, the zero.
    char text[2 * (4 * XID_INTERNAL_MAX_PART + 1) + sizeof "-9223372036854775808"];
    char *at = put_part(text, xid_internal->data, gtrid_bytes);
    at = put_part(at, xid_internal->data + gtrid_bytes, bytes_of_part(xid_internal->bqual_length));
    snprintf(at, static_cast<size_t>(text + sizeof text - at), "%ld",
             static_cast<long>(xid_internal->formatID));
    const size_t room = static_cast<size_t>(buf_len);
    if (strlen(text) < room) {
        strcpy(buf, text);
    } else {
        // Callers have always been told to bring one byte more; see the header.
        memcpy(buf, text, room - 1);
        buf[room] = '\0';
    }
}
