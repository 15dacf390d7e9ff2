// Entries kept aside for capacity. A new VC-FTN or ILM entry over its capacity,
// or a next hop beyond the ECMP path limit, is not dropped: its record waits
// here and is programmed, oldest first, as soon as there is room (a delete, a
// raised capability). A delete or a newer version of a waiting record acts on
// the waiting copy. Entries wait in the order their first record was refused;
// an entry's records keep their order.
#include <cstring>
#include <list>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "app/proc/ce_l3vpn_app.h"
#include "app/proc/ce_l3vpn_cap.h"

namespace {
struct wait_rec_t {
    ce_msg_comm_t msg;
    uint32_t gen;  // the data sync that last saw its input
};

struct wait_entry_t {
    uint32_t owner = 0;
    std::vector<wait_rec_t> recs;  // oldest first
    bool in_fifo = false;          // has no app node yet: waits for room
    std::list<std::string>::iterator fifo_at;
};

using wait_map_t = std::unordered_map<std::string, wait_entry_t>;

struct wait_state_t {
    wait_map_t entries;                            // by owner and key bytes
    std::list<std::string> fifo[CE_OWNER_ILM + 1]; // entries without a node, oldest first
    std::unordered_set<std::string> with_node;     // entries waiting for a path
    size_t recs = 0;
    bool draining = false;
};

wait_state_t &wq() {
    static wait_state_t s;
    return s;
}

std::string entry_id(const ce_msg_comm_t &m) {
    std::string id(reinterpret_cast<const char *>(&m.owner), sizeof m.owner);
    id.append(reinterpret_cast<const char *>(&m.key), sizeof m.key);
    return id;
}

// The same next hop of an entry, as the entry's database tells them apart.
bool same_nhop(const ce_msg_comm_t &a, const ce_msg_comm_t &b) {
    if (memcmp(&a.nhop, &b.nhop, sizeof a.nhop) != 0) return false;
    if (a.owner == CE_OWNER_VC_FTN) return true;
    return a.data.opcode == b.data.opcode && a.data.n_labels == b.data.n_labels &&
           memcmp(a.data.labels, b.data.labels, sizeof a.data.labels) == 0;
}

wait_rec_t *find_rec(wait_entry_t &e, const ce_msg_comm_t &m) {
    for (wait_rec_t &r : e.recs)
        if (same_nhop(r.msg, m)) return &r;
    return nullptr;
}

void drop_entry(wait_map_t::iterator it) {
    wait_state_t &s = wq();
    if (it->second.in_fifo) s.fifo[it->second.owner].erase(it->second.fifo_at);
    else s.with_node.erase(it->first);
    s.recs -= it->second.recs.size();
    s.entries.erase(it);
}

// Programs the waiting records of an entry, in their order; those still over
// a limit come back through ce_l3vpn_app_wait_keep.
void program_entry(wait_map_t::iterator it) {
    std::vector<wait_rec_t> recs = it->second.recs;
    drop_entry(it);
    for (wait_rec_t &r : recs) {
        r.msg.msg_event = CE_MSG_EVENT_ADD;
        ce_l3vpn_app_add(&r.msg);
    }
}
}  // namespace

bool ce_l3vpn_app_wait_keep(const ce_msg_comm_t *msg) {
    wait_state_t &s = wq();
    std::string id = entry_id(*msg);
    auto [it, added] = s.entries.try_emplace(id);
    wait_entry_t &e = it->second;
    if (wait_rec_t *r = find_rec(e, *msg)) {
        *r = wait_rec_t{*msg, ce_l3vpn_sync_gen};  // a newer version keeps its place
        return false;
    }
    e.owner = msg->owner;
    e.recs.push_back(wait_rec_t{*msg, ce_l3vpn_sync_gen});
    ++s.recs;
    if (!added) return true;
    if (ce_app_node_db_get_entry(msg) != nullptr) {
        s.with_node.insert(id);
        return true;
    }
    e.in_fifo = true;
    e.fifo_at = s.fifo[msg->owner].insert(s.fifo[msg->owner].end(), id);
    return true;
}

bool ce_l3vpn_app_wait_drop(const ce_msg_comm_t *msg) {
    if (wq().recs == 0) return false;  // the common case costs no key
    auto it = wq().entries.find(entry_id(*msg));
    if (it == wq().entries.end()) return false;
    std::vector<wait_rec_t> &recs = it->second.recs;
    for (auto r = recs.begin(); r != recs.end(); ++r) {
        if (!same_nhop(r->msg, *msg)) continue;
        recs.erase(r);
        --wq().recs;
        if (recs.empty()) drop_entry(it);
        return true;
    }
    return false;
}

// An entry that waits for room takes every later record of its own in line,
// so that it does not pass its older records.
bool ce_l3vpn_app_wait_entry(const ce_msg_comm_t *msg) {
    if (wq().recs == 0) return false;
    auto it = wq().entries.find(entry_id(*msg));
    return it != wq().entries.end() && it->second.in_fifo;
}

bool ce_l3vpn_app_wait_holds(const ce_msg_comm_t *msg) {
    if (wq().recs == 0) return false;
    auto it = wq().entries.find(entry_id(*msg));
    return it != wq().entries.end() && find_rec(it->second, *msg) != nullptr;
}

// Entries that have a node get their waiting next hops while the path limit
// allows; then whole entries, oldest first, while the owner has room.
void ce_l3vpn_app_wait_drain(uint32_t owner) {
    wait_state_t &s = wq();
    if (s.draining || owner > CE_OWNER_ILM || s.recs == 0) return;
    s.draining = true;
    std::vector<std::string> ready;
    for (const std::string &id : s.with_node) {
        const wait_entry_t &e = s.entries.at(id);
        if (e.owner == owner && ce_l3vpn_cap_nhop_room(&e.recs.front().msg)) ready.push_back(id);
    }
    for (const std::string &id : ready)
        if (auto it = s.entries.find(id); it != s.entries.end()) program_entry(it);
    while (!s.fifo[owner].empty() && ce_l3vpn_cap_app_room(owner))
        program_entry(s.entries.find(s.fifo[owner].front()));
    s.draining = false;
}

void ce_l3vpn_app_wait_drain_all(void) {
    for (uint32_t owner : {CE_OWNER_FTN, CE_OWNER_VC_FTN, CE_OWNER_ILM}) ce_l3vpn_app_wait_drain(owner);
}

// Waiting records whose input the data sync did not see again are gone.
void ce_l3vpn_app_wait_sweep(void) {
    wait_state_t &s = wq();
    for (auto it = s.entries.begin(); it != s.entries.end();) {
        auto next = std::next(it);
        size_t before = it->second.recs.size();
        std::erase_if(it->second.recs,
                      [](const wait_rec_t &r) { return r.gen != ce_l3vpn_sync_gen; });
        s.recs -= before - it->second.recs.size();
        if (it->second.recs.empty()) drop_entry(it);
        it = next;
    }
}

size_t ce_l3vpn_app_wait_count(uint32_t owner) {
    size_t n = 0;
    for (const auto &[id, e] : wq().entries)
        if (e.owner == owner) n += e.recs.size();
    return n;
}

void ce_l3vpn_app_wait_reset(void) { wq() = wait_state_t{}; }
