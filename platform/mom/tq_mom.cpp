// The tq_mom_* calls: each one checks its arguments and hands over to the
// client held in the context's first word.
#include "platform/mom/tq_mom.h"

namespace {

tq_mom_client_t *client_of(void *global) {
    if (global == nullptr) return nullptr;
    tq_mom_client_t *c = *static_cast<tq_mom_client_t **>(global);
    return c == nullptr || c->ops == nullptr ? nullptr : c;
}

}  // namespace

int tq_mom_client_connect_sync(void *global, uint32_t db) {
    tq_mom_client_t *c = client_of(global);
    if (c == nullptr) return TQ_MOM_ERR_PARAM;
    return c->ops->connect_sync(c, global, db);
}

int tq_mom_client_connect(void *global, uint32_t db, tq_mom_conn_cb_t cb, void *arg) {
    tq_mom_client_t *c = client_of(global);
    if (c == nullptr) return TQ_MOM_ERR_PARAM;
    return c->ops->connect(c, global, db, cb, arg);
}

int tq_mom_client_set_reconnect_cb(void *global, uint32_t db, tq_mom_reconn_cb_t cb, void *arg) {
    tq_mom_client_t *c = client_of(global);
    if (c == nullptr) return TQ_MOM_ERR_PARAM;
    return c->ops->set_reconnect_cb(c, global, db, cb, arg);
}

int tq_mom_subscribe(void *global, uint32_t db, const ProtobufCMessage *item, uint32_t flags,
                     tq_mom_msg_cb_t cb, void *arg) {
    tq_mom_client_t *c = client_of(global);
    if (c == nullptr || item == nullptr || cb == nullptr) return TQ_MOM_ERR_PARAM;
    return c->ops->subscribe(c, global, db, item, flags, cb, arg);
}

int tq_mom_scan_sync(void *global, uint32_t db, const ProtobufCMessage *item, uint32_t mode,
                     tq_mom_msg_cb_t cb, void *arg) {
    tq_mom_client_t *c = client_of(global);
    if (c == nullptr || item == nullptr || cb == nullptr) return TQ_MOM_ERR_PARAM;
    return c->ops->scan(c, global, db, item, mode, cb, arg);
}

int tq_mom_dsbegin_sync(void *global, uint32_t db, const ProtobufCMessage *item, uint32_t mode,
                        int32_t expire, uint32_t flags) {
    tq_mom_client_t *c = client_of(global);
    if (c == nullptr || item == nullptr) return TQ_MOM_ERR_PARAM;
    return c->ops->dsbegin(c, global, db, item, mode, expire, flags);
}

int tq_mom_dsend(void *global, uint32_t db, const ProtobufCMessage *item, uint32_t mode,
                 tq_mom_msg_cb_t cb, void *arg) {
    tq_mom_client_t *c = client_of(global);
    if (c == nullptr || item == nullptr) return TQ_MOM_ERR_PARAM;
    return c->ops->dsend(c, global, db, item, mode, cb, arg);
}

int tq_mom_set_ext(void *global, uint32_t db, const uint32_t *opt, const ProtobufCMessage *value,
                   uint32_t /*num*/, uint32_t /*flags*/) {
    tq_mom_client_t *c = client_of(global);
    if (c == nullptr || value == nullptr) return TQ_MOM_ERR_PARAM;
    bool batch = opt != nullptr && *opt == 0;
    return c->ops->set(c, db, value, false, batch);
}

int tq_mom_set_sync(void *global, uint32_t db, const ProtobufCMessage *value) {
    tq_mom_client_t *c = client_of(global);
    if (c == nullptr || value == nullptr) return TQ_MOM_ERR_PARAM;
    return c->ops->set(c, db, value, true, false);
}

int tq_mom_hmset(void *global, uint32_t db, const ProtobufCMessage *value, uint32_t /*num*/,
                 uint32_t /*flags*/) {
    tq_mom_client_t *c = client_of(global);
    if (c == nullptr || value == nullptr) return TQ_MOM_ERR_PARAM;
    return c->ops->hmset(c, db, value, false, true);
}

int tq_mom_hmset_sync(void *global, uint32_t db, const ProtobufCMessage *value) {
    tq_mom_client_t *c = client_of(global);
    if (c == nullptr || value == nullptr) return TQ_MOM_ERR_PARAM;
    return c->ops->hmset(c, db, value, true, false);
}

int tq_mom_del(void *global, uint32_t db, const ProtobufCMessage *value, uint32_t /*num*/,
               uint32_t /*flags*/) {
    tq_mom_client_t *c = client_of(global);
    if (c == nullptr || value == nullptr) return TQ_MOM_ERR_PARAM;
    return c->ops->del(c, db, value, false, true);
}

int tq_mom_del_sync(void *global, uint32_t db, const ProtobufCMessage *value) {
    tq_mom_client_t *c = client_of(global);
    if (c == nullptr || value == nullptr) return TQ_MOM_ERR_PARAM;
    return c->ops->del(c, db, value, true, false);
}

int tq_mom_publish(void *global, uint32_t db, const ProtobufCMessage *value, uint32_t /*num*/,
                   uint32_t /*flags*/) {
    tq_mom_client_t *c = client_of(global);
    if (c == nullptr || value == nullptr) return TQ_MOM_ERR_PARAM;
    return c->ops->publish(c, db, value);
}

int tq_mom_get_sync(void *global, uint32_t db, const ProtobufCMessage *key,
                    ProtobufCMessage **out) {
    if (out != nullptr) *out = nullptr;
    tq_mom_client_t *c = client_of(global);
    if (c == nullptr || key == nullptr || out == nullptr) return TQ_MOM_ERR_PARAM;
    return c->ops->get(c, db, key, out);
}

void tq_mom_free(ProtobufCMessage *msg) {
    if (msg != nullptr) protobuf_c_message_free_unpacked(msg, nullptr);
}

void tq_mom_client_free(tq_mom_client_t *c) {
    if (c != nullptr && c->ops != nullptr && c->ops->destroy != nullptr) c->ops->destroy(c);
}

int tq_mom_watch(void *global, uint32_t db, const ProtobufCMessage *item, uint32_t mode,
                 tq_mom_msg_cb_t cb, void *arg) {
    tq_mom_client_t *c = client_of(global);
    if (c == nullptr || item == nullptr || cb == nullptr || mode > TQ_MOM_MODE_OWNER ||
        c->ops->watch == nullptr)
        return TQ_MOM_ERR_PARAM;
    return c->ops->watch(c, global, db, item, mode, cb, arg);
}
