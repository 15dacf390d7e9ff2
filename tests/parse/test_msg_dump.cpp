// The message dumps operators read.
#include <cstring>

#include "app/proc/ce_l3vpn_dump.h"
#include "foundation/zlog_capture.h"

namespace {
ce_msg_comm_t ilm_v6() {
    ce_msg_comm_t m;
    memset(&m, 0, sizeof m);
    m.msg_event = CE_MSG_EVENT_ADD, m.owner = CE_OWNER_ILM, m.key.ilm.inlabel = 100;
    m.nhop.pro = CE_PRO_IPV6, m.nhop.ifx = 3, m.nhop_attr.weight = 1;
    m.nhop.ip[0] = 0xfe, m.nhop.ip[1] = 0x80, m.nhop.ip[15] = 1;
    m.data.opcode = CE_OP_SWAP, m.data.n_labels = 1, m.data.labels[0] = CE_MPLS_LABEL_NONE;
    m.data.vrf = 7, m.data.ilm_vc_ifx = 8;
    return m;
}

TEST(MsgDump, CommLogsEveryPart) {
    ce_msg_comm_t ftn;
    memset(&ftn, 0, sizeof ftn);
    ftn.msg_event = CE_MSG_EVENT_DEL, ftn.owner = CE_OWNER_FTN;
    ftn.key.ftn.vrf = 5, ftn.key.ftn.mask_len = 16;
    ftn.key.ftn.ip[0] = 10, ftn.key.ftn.ip[1] = 1;
    ftn.data.opcode = CE_OP_PUSH;
    ce_msg_comm_t ilm = ilm_v6();
    ce_msg_comm_t vc = ilm_v6();
    vc.owner = CE_OWNER_VC_FTN, vc.key.vc_ftn.vc_ifx = 40;
    vc.data.vc_mode = 5, vc.data.sd_vid = 100, vc.data.cw = 1, vc.data.vc_ifx = 40;

    ZlogCapture log;
    EXPECT_EQ(ce_l3vpn_dump_msg_comm(&ftn), 0);
    EXPECT_EQ(ce_l3vpn_dump_msg_comm(&ilm), 0);
    EXPECT_EQ(ce_l3vpn_dump_msg_comm(&vc), 0);
    EXPECT_EQ(ce_l3vpn_dump_msg_comm(nullptr), 4);
    std::string t = log.text();
    const char *lines[] = {
        "\t onwer:ftn, msg_event:del,\n",
        "\t key==>pro:0, vrf:5, mask_len:16, ip:010.001.000.000\n",
        "\t nhop==>pro:0, ip:000.000.000.000, ifx:0\n",
        "\t nhop_attr==>vrf:0, ifx_type:0, weight:0, seq:0\n",
        "\t data==>opcode:PUSH, n_label:0\n",
        "label stack: nil \n",
        "\t onwer:ilm, msg_event:add,\n",
        "\t key==>inlabel:100\n",
        "\t nhop==>pro:1, ip:fe80::1, ifx:3\n",
        "\t data==>opcode:SWAP, n_label:1\n",
        "lab0:1048576 lab1:0",
        "\t vrf:7, vc_ifx:8\n",
        "\t onwer:vc_ftn, msg_event:add,\n",
        "\t key==>vc_ifx:40\n",
        "\t vc_mode:5, sd_vid:100, cw:1, vc_ifx:40\n",
        "Fail, msg NULL, ",
    };
    for (const char *line : lines) EXPECT_TRUE(has(t, line));
}

TEST(MsgDump, StatusCnt) {
    ce_msg_status_cnt_t c;
    memset(&c, 0, sizeof c);
    c.index = 12, c.timestamp = 123456789012ull, c.bytes = 5000000000ull, c.pkts = 77;
    ZlogCapture log;
    EXPECT_EQ(ce_l3vpn_dump_msg_status_cnt(&c), 0);
    EXPECT_TRUE(has(log.text(), "\t V4: status_cnt==>timestamp:123456789012, bytes:5000000000, pkts:77\n"));
}

TEST(MsgDump, TextIsAlignedAndBounded) {
    ce_msg_comm_t m = ilm_v6();
    char buf[512];
    int n = ce_l3vpn_msg_comm_to_text(&m, buf, sizeof buf);
    const std::string want =
        "owner      : ilm        event : add\n"
        "key        : inlabel 100\n"
        "nhop       : fe80::1  pro 1  ifx 3\n"
        "nhop_attr  : vrf 0  ifx_type 0  weight 1  seq 0\n"
        "opcode     : SWAP (3)\n"
        "labels     : 1 [imp-null]\n"
        "ilm        : vrf 7  vc_ifx 8\n";
    EXPECT_EQ(buf, want);
    EXPECT_EQ(n, static_cast<int>(want.size()));
    char small[20];
    EXPECT_EQ(ce_l3vpn_msg_comm_to_text(&m, small, sizeof small), n);
    EXPECT_EQ(std::string(small), want.substr(0, 19));
    EXPECT_EQ(ce_l3vpn_msg_comm_to_text(&m, nullptr, 0), n);
}
}  // namespace
