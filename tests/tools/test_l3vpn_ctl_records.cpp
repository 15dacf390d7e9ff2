// l3vpn-ctl load / delete / dump / cap against a private redis-server.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "p_intf.pb-c.h"
#include "p_mpls.pb-c.h"
#include "s_mpls.pb-c.h"
#include "s_route.pb-c.h"
#include "u_mpls.pb-c.h"
#include "support/proc_harness.h"

using json = nlohmann::json;

namespace {

struct table_case_t {
    const ProtobufCMessageDescriptor *desc;
    int db;
    const char *type;  // Redis type of its records
};

// Every message of the daemon's tables with its database and data type.
const table_case_t kTables[] = {
    {&p_mpls__mom_conf_global_enable__descriptor, 4, "string"},
    {&p_mpls__mom_conf_label_switch__descriptor, 4, "string"},
    {&p_mpls__mom_conf_vpn_ttl__descriptor, 4, "string"},
    {&p_mpls__mom_msg_ftn__descriptor, 6, "string"},
    {&u_mpls__udp_vc_ftn__descriptor, 6, "string"},
    {&p_mpls__mom_msg_ilm__descriptor, 6, "string"},
    {&s_mpls__srte_status_cnt__descriptor, 10, "string"},
    {&p_intf__data_intf__descriptor, 4, "hash"},
    {&p_mpls__mom_conf_te_tun_service_class__descriptor, 6, "string"},
    {&p_intf__evt_ifclearcnt__descriptor, 4, "string"},
    {&u_mpls__udp_mpls_enable__descriptor, 8, "string"},
    {&u_mpls__udp_ttl_copy_enable__descriptor, 8, "string"},
    {&u_mpls__udp_lab_sw__descriptor, 8, "string"},
    {&p_mpls__mom_conf_fwd_ability__descriptor, 4, "string"},
    {&s_route__comm_rt__descriptor, 6, "string"},
    {&s_route__vir_rt__descriptor, 6, "string"},
    {&u_mpls__udp_ilm__descriptor, 10, "string"},
    {&s_route__in_sub_adj__descriptor, 10, "string"},
    {&u_mpls__udp_srte_status_cnt__descriptor, 10, "string"},
    {&p_intf__data_if_counters__descriptor, 4, "hash"},
};

// A value for every field, none of them zero, in the form dump --json prints.
json full_value(const ProtobufCFieldDescriptor *f, int &n);

json full_message(const ProtobufCMessageDescriptor *d, int &n) {
    json obj = json::object();
    for (unsigned k = 0; k < d->n_fields; ++k) {
        const ProtobufCFieldDescriptor *f = &d->fields[k];
        if (f->label == PROTOBUF_C_LABEL_REPEATED)
            obj[f->name] = json::array({full_value(f, n), full_value(f, n)});
        else
            obj[f->name] = full_value(f, n);
    }
    return obj;
}

json full_value(const ProtobufCFieldDescriptor *f, int &n) {
    ++n;
    switch (f->type) {
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
        return -9000000000000000000LL - n;
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
        return 18446744073709551000ULL + static_cast<uint64_t>(n);  // beyond 2^53
    case PROTOBUF_C_TYPE_DOUBLE:
        return n + 0.25;
    case PROTOBUF_C_TYPE_BOOL:
        return true;
    case PROTOBUF_C_TYPE_ENUM: {
        auto *e = static_cast<const ProtobufCEnumDescriptor *>(f->descriptor);
        return e->values[e->n_values - 1].name;
    }
    case PROTOBUF_C_TYPE_STRING:
        return "text " + std::to_string(n);
    case PROTOBUF_C_TYPE_BYTES:
        return "00ff" + std::to_string(10 + n % 90);
    case PROTOBUF_C_TYPE_MESSAGE: {
        auto *sub = static_cast<const ProtobufCMessageDescriptor *>(f->descriptor);
        if (sub == &p_libpub__ip__descriptor)
            return n % 2 ? "10.0.0." + std::to_string(n % 250) : "2001:db8::" + std::to_string(n);
        return full_message(sub, n);
    }
    default:
        return n;
    }
}

// The listing operators read: every table above with its database and data type,
// the output tables once per owner slice.
TEST(CtlTables, ListsEveryTableWithItsDatabaseAndType) {
    temp_dir_t dir;
    ctl_result_t r = run_ctl({"tables"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<std::string> rows = text_lines(r.out);
    ASSERT_EQ(rows.size(), 24u) << r.out;
    EXPECT_EQ(rows[0], "#   db  type    use     owner  table");
    EXPECT_EQ(rows[16], "16  6   string  output  8      s_route.vir_rt");
    for (const table_case_t &t : kTables) {
        const std::regex row("\\d+ +" + std::to_string(t.db) + " +" + t.type +
                             " +(input|output) +[-0-9]+ +" + t.desc->name);
        EXPECT_TRUE(std::any_of(rows.begin(), rows.end(),
                                [&](const std::string &l) { return std::regex_match(l, row); }))
            << t.desc->name;
    }
}

class CtlRecords : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(redis_.start());
        cli_ = std::make_unique<redis_cli_t>(redis_.socket());
    }
    ctl_result_t run(std::vector<std::string> args) {
        args.insert(args.begin(), {"--redis", redis_.mom_redis()});
        return run_ctl(args, dir_.path());
    }
    std::string file(const std::string &name, const std::vector<std::string> &lines) {
        std::string path = dir_.path() + "/" + name;
        std::ofstream f(path);
        for (const std::string &l : lines) f << l << "\n";
        return path;
    }
    std::vector<std::string> keys_in(int db, const std::string &pattern = "*") {
        cli_->select(db);
        return cli_->keys(pattern);
    }
    temp_dir_t dir_;
    redis_server_t redis_{dir_.path()};
    std::unique_ptr<redis_cli_t> cli_;
};

const std::string kIlm =
    R"({"table": "p_mpls.mom_msg_ilm", "index": {"in_label": 5002, "co_nhop": "192.0.2.1", )"
    R"("out_ifx": 101, "lb_cnt": 1, "lb_st_0": 6002, "opcode": "SWAP"}, "vrfid": 1})";
// The keys other programs look these records up by.
const std::string kIlmKey = "p_mpls.mom_msg_ilm|5002|0|v4:192.0.2.1|101||1|6002|0|0|0|0|0|0|3";
const std::string kVcFtnKey = "u_mpls.udp_vc_ftn|3001|v4b:c0000201|0";
const std::string kAdj =
    R"({"table": "s_route.in_sub_adj", "index": {"t_rt_owner": 7, "ifx": 3, "ip": "::1", )"
    R"("mplsid": 4294967301}, "opcode": 3, "labels": [16, 1048576], "ttl_map": true})";
const std::string kVcFtn =
    R"({"table": "u_mpls.udp_vc_ftn", "index": {"vc_ifx": 3001, "co_nhop": {"v4b": "c0000201"}}, )"
    R"("label_stack": [4001], "vc_mode": 5})";

TEST_F(CtlRecords, EveryTableRoundTripsWithEveryFieldSet) {
    std::vector<std::string> lines;
    std::vector<json> records;
    int n = 0;
    for (const table_case_t &t : kTables) {
        records.push_back({{"table", t.desc->name}});
        records.back().update(full_message(t.desc, n));
        lines.push_back(records.back().dump());
    }
    ctl_result_t load = run({"load", file("full.jsonl", lines)});
    ASSERT_EQ(load.status, 0) << load.err;
    EXPECT_EQ(load.out, "loaded 20 records from " + dir_.path() + "/full.jsonl\n");
    for (size_t i = 0; i < std::size(kTables); ++i) {
        const table_case_t &t = kTables[i];
        SCOPED_TRACE(t.desc->name);
        ctl_result_t dump = run({"dump", t.desc->name, "--json"});
        ASSERT_EQ(dump.status, 0) << dump.err;
        std::vector<std::string> out = text_lines(dump.out);
        ASSERT_EQ(out.size(), 1u) << dump.out;
        EXPECT_EQ(json::parse(out[0]), records[i]);
        std::vector<std::string> keys = keys_in(t.db, std::string(t.desc->name) + "*");
        ASSERT_EQ(keys.size(), 1u);
        EXPECT_EQ(cli_->command({"TYPE", keys[0]}), t.type);
    }
    // dump all --json loads back into an empty store unchanged
    ctl_result_t all = run({"dump", "all", "--json"});
    ASSERT_EQ(all.status, 0);
    EXPECT_EQ(text_lines(all.out).size(), 20u);
    cli_->flushall();
    ASSERT_EQ(run({"load", file("all.jsonl", text_lines(all.out))}).status, 0);
    EXPECT_EQ(run({"dump", "all", "--json"}).out, all.out);
}

TEST_F(CtlRecords, TableViewShowsNamesAddressesAndMplsIds) {
    ASSERT_EQ(run({"load", file("v.jsonl", {kAdj, kVcFtn})}).status, 0);
    ctl_result_t adj = run({"dump", "s_route.in_sub_adj"});
    EXPECT_EQ(adj.status, 0);
    EXPECT_EQ(adj.out,
              "index.t_rt_owner  index.ifx  index.protocol  index.ip  index.mplsid       ttl  exp  "
              "vc_mode  sd_vid  cw  opcode  ext_mode  ttl_map  vrf  mask_len  rcs_rt  labels        stat_id\n"
              "7                 3          0               ::1       {1, 5} 4294967301  0    0    "
              "0        0       0   SWAP    0         true     0    0         false   [16 1048576]  0\n");
    ctl_result_t all = run({"dump", "all"});
    EXPECT_EQ(all.out,
              "== u_mpls.udp_vc_ftn (db 6, string, 1 record) ==\n"
              "index.vc_ifx  index.co_nhop  index.out_ifx  opcode   label_stack  vc_mode  sd_vid  cw\n"
              "3001          v4b:c0000201   0              INITIAL  [4001]       5        0       0\n"
              "\n"
              "== s_route.in_sub_adj (db 10, string, 1 record) ==\n" +
                  text_lines(adj.out)[0] + "\n" + text_lines(adj.out)[1] + "\n\n");
    EXPECT_EQ(run({"dump", "u_mpls.udp_ilm"}).out, "(no records of u_mpls.udp_ilm in db 10)\n");
}

TEST_F(CtlRecords, HashRecordsAreHashesOfThePresentFields) {
    const std::string key = "p_intf.data_intf|7";
    const std::string intf = R"({"table": "p_intf.data_intf", "index": {"index": 7}, )";
    ASSERT_EQ(run({"load", file("h1.jsonl", {intf + R"("name": "eth7", "dev": 1})"})}).status, 0);
    cli_->select(4);
    cli_->command({"PEXPIRE", key, "100000"});  // a data-sync mark
    ASSERT_EQ(run({"load", file("h2.jsonl", {intf + R"("dev": 2, "link_state": "UP"})"})}).status, 0);
    EXPECT_EQ(cli_->command({"TYPE", key}), "hash");
    EXPECT_EQ(cli_->command({"TTL", key}), "-1");
    std::vector<std::string> names;  // only the present fields, the old name gone
    for (const auto &f : cli_->hgetall(key)) names.push_back(f.first);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"dev", "index", "link_state"}));
}

TEST_F(CtlRecords, OneBadLineWritesNothingAndNamesTheLine) {
    const struct {
        const char *line, *reason;
    } cases[] = {
        {"{\"table\": ", "bad JSON: "},
        {R"({"table": "p_mpls.mom_msg_nope"})", "unknown table 'p_mpls.mom_msg_nope'"},
        {R"({"table": "p_mpls.mom_msg_ilm", "index": {"in_label": 1, "label": 2}})",
         "unknown field 'index.label' in p_mpls.ilm_index"},
        {R"({"table": "p_mpls.mom_msg_ilm", "index": {"in_label": 4294967296}})",
         "field 'index.in_label': 4294967296 is out of range for uint32"},
        {R"({"table": "p_mpls.mom_msg_ilm", "index": {"co_nhop": "192.0.2.300"}})",
         "field 'index.co_nhop': bad address '192.0.2.300'"},
        {R"({"table": "p_mpls.mom_msg_ilm", "vrfid": 1})", "missing key \"index\" of p_mpls.mom_msg_ilm"},
        {R"({"table": "p_intf.data_intf", "index": {"index": 1}, "link_state": "SIDEWAYS"})",
         "field 'link_state': unknown p_intf.intfstatus_e value 'SIDEWAYS'"},
        {R"({"table": "s_route.in_sub_adj"})", "missing key \"index\" of s_route.in_sub_adj"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        for (const char *how : {"load", "delete"}) {
            cli_->flushall();
            ASSERT_EQ(run({"load", file("good.jsonl", {kVcFtn})}).status, 0);
            std::string path = file("bad.jsonl", {kIlm, "", c.line, kAdj, kVcFtn});
            ctl_result_t r = run({how, path});
            EXPECT_EQ(r.status, 1) << how;
            EXPECT_EQ(r.err.find(path + ":3: " + c.reason), 0u) << r.err;
            EXPECT_NE(r.err.find("l3vpn-ctl: " + path + ": 1 bad line, nothing "), std::string::npos)
                << r.err;
            EXPECT_EQ(keys_in(6), std::vector<std::string>{kVcFtnKey}) << how;
            EXPECT_EQ(keys_in(10).size(), 0u);
        }
    }
}

TEST_F(CtlRecords, DeleteRemovesExactlyTheNamedKeys) {
    const std::string ttl = R"({"table": "p_mpls.mom_conf_vpn_ttl", "vpn_ttl_enable": true})";
    ASSERT_EQ(run({"load", file("d.jsonl", {kIlm, kAdj, kVcFtn, ttl})}).status, 0);
    EXPECT_EQ(keys_in(6), (std::vector<std::string>{kIlmKey, kVcFtnKey}));
    cli_->set("p_mpls.mom_msg_ilm_other|1", "x");  // not a record of the table
    // The ILM named by its key fields only, a record without a key, and one that is not there.
    const std::string ilm = R"({"table": "p_mpls.mom_msg_ilm", "index": {"in_label": )";
    const std::string path =
        file("del.jsonl", {ilm + R"(5002, "co_nhop": "192.0.2.1", "out_ifx": 101, "lb_cnt": 1, )"
                                 R"("lb_st_0": 6002, "opcode": 3}})",
                           R"({"table": "p_mpls.mom_conf_vpn_ttl"})", ilm + "9}}"});
    ctl_result_t r = run({"delete", path});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "deleted 2 of 3 records named in " + path + "\n");
    EXPECT_EQ(keys_in(6), (std::vector<std::string>{"p_mpls.mom_msg_ilm_other|1", kVcFtnKey}));
    EXPECT_EQ(keys_in(4).size(), 0u);
    EXPECT_EQ(keys_in(10).size(), 1u);
}

TEST_F(CtlRecords, UndecodableRecordIsReportedAndTheRestPrinted) {
    ASSERT_EQ(run({"load", file("u.jsonl", {kIlm})}).status, 0);
    cli_->select(6);
    cli_->set("p_mpls.mom_msg_ilm|1|0||0||0|0|0|0|0|0|0|0|0", std::string("\x2a\xff", 2));
    ctl_result_t r = run({"dump", "p_mpls.mom_msg_ilm", "--json"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(text_lines(r.out).size(), 1u);
    EXPECT_EQ(r.err, "l3vpn-ctl: dump: db 6 key 'p_mpls.mom_msg_ilm|1|0||0||0|0|0|0|0|0|0|0|0': "
                     "does not decode as string p_mpls.mom_msg_ilm\n");
}

TEST_F(CtlRecords, CapabilitiesLiveInTheGlobalHashOfDatabase4) {
    EXPECT_EQ(run({"cap", "set", "s_mpls/l3vpn/capacity/ilm", "4000"}).status, 0);
    EXPECT_EQ(run({"cap", "set", "s_mpls/l3vpn/ability/l3vpn", "true"}).status, 0);
    EXPECT_EQ(run({"cap", "set", "s_mpls/l3vpn/capacity/ilm", "4e3"}).status, 2);
    cli_->select(4);
    EXPECT_EQ(cli_->command({"HGET", "capability|global", "s_mpls/l3vpn/capacity/ilm"}), "4000");
    EXPECT_EQ(run({"cap", "get", "s_mpls/l3vpn/ability/l3vpn"}).out, "true\n");
    ctl_result_t missing = run({"cap", "get", "s_mpls/l3vpn/capacity/ftn"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err, "l3vpn-ctl: cap: s_mpls/l3vpn/capacity/ftn is not set\n");
    EXPECT_EQ(run({"cap", "list"}).out,
              "s_mpls/l3vpn/ability/l3vpn  true\n"
              "s_mpls/l3vpn/capacity/ilm   4000\n");
}

TEST_F(CtlRecords, UsageErrorsAndUnreachableStore) {
    EXPECT_EQ(run({"frobnicate"}).status, 2);
    EXPECT_EQ(run({"dump", "p_libpub.ip"}).status, 2);
    ctl_result_t down = run_ctl({"--redis", "unix:/nonexistent.sock", "dump", "all"}, dir_.path());
    EXPECT_EQ(down.status, 1);
    EXPECT_NE(down.err.find("cannot connect to Redis at unix:"), std::string::npos) << down.err;
}

}  // namespace
