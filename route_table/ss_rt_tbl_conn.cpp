// The route-table client's connections (one per database, held by the first
// table created on it), reconnect reports and congestion-control registration.
#include <cstdlib>

#include "platform/cgst/libcgstctrl.h"
#include "route_table/ss_rt_tbl_int.h"

namespace {

// Exit status that asks the supervisor for a clean restart.
constexpr int kExitConnLost = 77;

bool tbl_any_conn_pending() {
    const ss_rt_tbl_ctl_t &c = ss_rt_tbl_ctl;
    for (uint32_t i = 0; i < c.tbl_cur_num; ++i)
        if (c.tables[i].valid && c.tables[i].conn_st == RT_ST_NULL) return true;
    return false;
}

int tbl_open_db(ss_rt_tbl_t *table) {
    void *g = ss_rt_tbl_ctl.global;
    int rv = tq_mom_client_connect_sync(g, table->db);
    rv |= tq_mom_client_connect(g, table->db, tbl_conn_cb, table);
    rv |= tq_mom_client_set_reconnect_cb(g, table->db, tbl_reconn_cb, table);
    return rv;
}

// First congestion registration on a database: initialise it once for all of
// its tables; a failure is recorded and the registration goes on.
void tbl_cgst_init(ss_rt_tbl_t *table) {
    ss_rt_tbl_ctl_t &c = ss_rt_tbl_ctl;
    int rv = libcgstctrl_gen_init(c.global, table->db, c.module);
    if (rv != 0) TBL_FAIL("rv == 0", RT_HIST_CGST, rv, table->db);
    for (uint32_t i = 0; i < c.tbl_cur_num; ++i)
        if (c.tables[i].valid && c.tables[i].db == table->db) c.tables[i].cgst = 1;
}

// Notices are lost while the link is down: the subscribed tables of db wait
// for their end markers again, which the MOM delivers once it has
// re-subscribed them, and the data sync then re-reads everything.
void tbl_sub_wait_again(uint32_t db) {
    ss_rt_tbl_ctl_t &c = ss_rt_tbl_ctl;
    for (uint32_t i = 0; i < c.tbl_cur_num; ++i) {
        ss_rt_tbl_t &t = c.tables[i];
        if (t.valid && t.db == db && t.sub_st != RT_ST_IGNORE) t.sub_st = RT_ST_NULL;
    }
}

}  // namespace

int ss_rt_tbl_connect_db(ss_rt_tbl_void_func_t conn_func) {
    ss_rt_tbl_ctl_t &c = ss_rt_tbl_ctl;
    TBL_BRIEF("func:%p", reinterpret_cast<void *>(conn_func));
    TBL_CHECK(conn_func != nullptr, "conn_func != NULL", -4);
    c.conn_func = conn_func;
    if (c.tbl_cur_num == 0) return 0;
    int rv = 0;
    for (uint32_t i = 0; i < c.tbl_cur_num; ++i) {
        ss_rt_tbl_t &t = c.tables[i];
        if (t.valid && t.conn_st == RT_ST_NULL) rv |= tbl_open_db(&t);
    }
    if (rv != 0) TBL_HIST(RT_HIST_CONN, rv, 0);
    return rv;
}

int ss_rt_tbl_reg_reconnect(ss_rt_tbl_reconn_func_t reconn_func, uint8_t is_exit) {
    TBL_BRIEF("func:%p is_exit:%d", reinterpret_cast<void *>(reconn_func), is_exit);
    ss_rt_tbl_ctl.reconn_func = reconn_func;
    ss_rt_tbl_ctl.reconn_exit = is_exit;
    return 0;
}

int tbl_conn_cb(void * /*global*/, void *arg) {
    ss_rt_tbl_ctl_t &c = ss_rt_tbl_ctl;
    auto *table = static_cast<ss_rt_tbl_t *>(arg);
    TBL_BRIEF("table:%d", TBL_NO(table));
    TBL_CHECK(tbl_is_valid(table), "tbl_is_valid(table)", -4);
    if (table->conn_st == RT_ST_OK) {
        TBL_WARN("connect repeate");
        TBL_HIST(RT_HIST_CONN_REPEAT, table->idx, table->db);
    } else {
        table->conn_st = RT_ST_OK;
    }
    if (tbl_any_conn_pending()) {
        TBL_WARN("not all db conn ok");
        return 0;
    }
    if (c.conn_func != nullptr) c.conn_func();
    TBL_HIST(RT_HIST_CONN_CB, table->idx, table->db);
    return 0;
}

int tbl_reconn_cb(void * /*global*/, uint32_t db, uint32_t type, void *arg) {
    auto *table = static_cast<ss_rt_tbl_t *>(arg);
    TBL_BRIEF("table:%d db:%d type:%d", TBL_NO(table), static_cast<int>(db),
              static_cast<int>(type));
    TBL_CHECK(tbl_is_valid(table), "tbl_is_valid(table)", -4);
    if (type == TQ_MOM_CONN_LOST) {
        TBL_BRIEF("conn error");
        if (ss_rt_tbl_ctl.reconn_exit) exit(kExitConnLost);
        tbl_sub_wait_again(db);
    } else if (type == TQ_MOM_CONN_BACK) {
        TBL_BRIEF("conn change");
        if (ss_rt_tbl_ctl.reconn_func != nullptr) ss_rt_tbl_ctl.reconn_func(db);
    }
    return 0;
}

// Handles come only from the daemon's own tables, so they are not checked.
int ss_rt_tbl_reg_cgst_topic_detail(ss_rt_tbl_t *table, uint32_t param) {
    ss_rt_tbl_ctl_t &c = ss_rt_tbl_ctl;
    if (!table->cgst) tbl_cgst_init(table);
    int rv = libcgstctrl_gen_topic_reg(c.global, table->db, c.module, table->item, param);
    if (rv != 0) TBL_FAIL("rv == 0", RT_HIST_CGST, rv, table->db);
    return rv;
}

int ss_rt_tbl_reg_cgst_event(int (*event_func)(void *arg)) {
    TBL_BRIEF("func:%p", reinterpret_cast<void *>(event_func));
    int rv = libcgstctrl_gen_event_reg(ss_rt_tbl_ctl.module, event_func);
    if (rv != 0) TBL_FAIL("rv == 0", RT_HIST_CGST, rv, 0);
    return rv;
}
