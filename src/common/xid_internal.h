// Names of global transactions. Applications and transaction managers hand over the XID record of
// the XA standard; inside, the same with fixed widths is used, sent in one of two byte forms,
// compared, and printed for logs. Nothing here is owned or kept; the data of an identifier is
// bytes, not text. A NULL argument fails an assertion.

#ifndef XID_INTERNAL_H
#define XID_INTERNAL_H

#include "common/zd_base.h"

// The XA standard's own header (xa.h), when it is included before this one, brings the record.
#ifndef XA_H
#ifndef XIDDATASIZE
#define XIDDATASIZE 128
#endif
typedef struct xid_t {
    long formatID;
    long gtrid_length; // of the global transaction identifier
    long bqual_length; // of the branch qualifier, which follows it in data
    char data[XIDDATASIZE];
} XID;
#endif

#define XID_INTERNAL_DATA_SIZE 128

// Longest part that has a text form.
#define XID_INTERNAL_MAX_PART 64

typedef struct xid_internal_s {
    int64_t formatID;
    int64_t gtrid_length;
    int64_t bqual_length;
    char data[XID_INTERNAL_DATA_SIZE];
} xid_internal_t;

static_assert(sizeof(XID) == 152, "XID is part of the ABI");
static_assert(sizeof(xid_internal_t) == 152, "xid_internal_t is part of the ABI");
static_assert(offsetof(xid_internal_t, gtrid_length) == 8, "xid_internal_t is part of the ABI");
static_assert(offsetof(xid_internal_t, bqual_length) == 16, "xid_internal_t is part of the ABI");
static_assert(offsetof(xid_internal_t, data) == 24, "xid_internal_t is part of the ABI");

// Size of the full form, and of the buffer for either form. Big-endian:
//
//   | formatID 8 | gtrid_length 8 | bqual_length 8 | data 128, the unused tail included |
#define XID_INTERNAL_SERIALIZED_SIZE 152

// The compressed form has a head of 10 bytes, and the used bytes of data only. Its formatID is in
// the byte order of the host, so that it is read on the kind of machine that wrote it.
//
//   | formatID 8 | gtrid_length 1 | bqual_length 1 | data gtrid_length + bqual_length |
#define XID_INTERNAL_COMPRESSED_HEAD 10

ZD_BEGIN_DECLS

ZD_API void XID_to_xid_internal(const XID *xid, xid_internal_t *xid_internal);
ZD_API void xid_internal_to_XID(const xid_internal_t *xid_internal, XID *xid);

// Fills all XID_INTERNAL_SERIALIZED_SIZE bytes of buf.
ZD_API void xa_xid_internal_serialize(const xid_internal_t *xid_internal, void *buf);
ZD_API void xa_xid_internal_deserialize(const void *buf, xid_internal_t *xid_internal);

// Fills all XID_INTERNAL_SERIALIZED_SIZE bytes of buf, the first *len of which are the compressed
// form. It cannot carry an empty part: one fails an assertion, and so do parts that data cannot
// hold.
ZD_API void xa_xid_internal_compress(const xid_internal_t *xid_internal, void *buf, size_t *len);

// Zeroes the unused bytes of data. Lengths that are more than data can hold fail an assertion, so
// buf, whose length is not asked for, must come from a peer that is trusted that far.
ZD_API void xa_xid_internal_decompress(const void *buf, xid_internal_t *xid_internal);

ZD_API size_t xa_xid_internal_get_compressed_len(const xid_internal_t *xid_internal);

// 0 when equal. -1 when formatID or a length differs, whichever is larger: that is no order. Else
// -1 or 1 by the first byte that differs, as an unsigned number.
ZD_API int xa_xid_internal_compare(const xid_internal_t *xid_internal1,
                                   const xid_internal_t *xid_internal2);

// The same over the global identifiers alone. Branches whose qualifiers have different lengths
// still count as different.
ZD_API int xa_xid_internal_compare_gtrid(const xid_internal_t *xid_internal1,
                                         const xid_internal_t *xid_internal2);

// "/065/066./067.1": every byte as three digits, a dot behind each part, then formatID. Leaves buf
// alone when a part is longer than XID_INTERNAL_MAX_PART. A text of buf_len characters or more is
// cut to its first buf_len - 1; buf[buf_len - 1] is then left alone and the zero is put at
// buf[buf_len], so buf must have buf_len + 1 bytes.
ZD_API void xa_xid_internal_to_str(const xid_internal_t *xid_internal, char *buf, int buf_len);

ZD_END_DECLS

#endif
