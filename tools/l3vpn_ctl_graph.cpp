// graph: the forwarding state in the store as a Graphviz picture. Entries
// (from the input records) -> their next hops -> the inner adjacencies the
// routes of those next hops name (MPLS id, labels, opcode, from the UC
// records) -> the EF routes and FE in-labels written for them. Outputs that no
// input explains are drawn dashed.
#include <arpa/inet.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "p_mpls.pb-c.h"
#include "s_route.pb-c.h"
#include "tools/l3vpn_ctl.h"
#include "tools/l3vpn_ctl_codec.h"
#include "tools/l3vpn_ctl_redis.h"
#include "tools/l3vpn_ctl_tables.h"
#include "u_mpls.pb-c.h"

const char *const CTL_HELP_GRAPH =
    "usage: l3vpn-ctl graph [--vrf N | --label N | --all] [-o FILE]\n"
    "\n"
    "Draws the forwarding state the store holds as a Graphviz graph (DOT): each\n"
    "entry (FTN, VC-FTN, ILM input records) -> its next hops -> the inner adjacency\n"
    "the next hop's route names (MPLS id, opcode, labels, from its UC record) -> the\n"
    "EF routes and the FE in-label written for it. Outputs that no input explains\n"
    "are drawn dashed (with --all).\n"
    "  --all      every entry (the default)\n"
    "  --vrf N    the FTN entries of VRF N and the ILM entries that pop into it\n"
    "  --label N  the ILM entry of in-label N\n"
    "  -o FILE    write to FILE (also --output FILE): DOT, or SVG when FILE\n"
    "             ends in .svg (runs `dot -Tsvg`, from the graphviz package);\n"
    "             default: DOT on standard output\n"
    "Node ids are stable: \"entry|ftn|VRF|PREFIX/LEN\", \"entry|vc_ftn|VC_IFX\",\n"
    "\"entry|ilm|LABEL\", \"nh|\" + the input record's Redis key, \"adj|MPLS_ID\",\n"
    "\"rt|\" + the route's Redis key, \"fe|\" + the in-label's Redis key.\n"
    "\n"
    "Exit status: 0 written, 1 Redis or writing failed (or no dot for .svg),\n"
    "2 bad usage.\n";

namespace {

// ---- printed texts ---------------------------------------------------------------

constexpr const char *GR_HEAD =
    "digraph l3vpn {\n"
    "  rankdir=LR;\n"
    "  node [fontname=\"monospace\", fontsize=10, shape=box];\n"
    "  edge [color=\"#555555\"];\n";
constexpr const char *GR_ENTRY = "shape=box, style=\"rounded,filled\", fillcolor=\"#d6e6f5\"";
constexpr const char *GR_NHOP = "shape=ellipse";
constexpr const char *GR_ADJ = "style=filled, fillcolor=\"#f5ead0\"";
constexpr const char *GR_ADJ_DASHED = "style=\"filled,dashed\", fillcolor=\"#f5ead0\"";
constexpr const char *GR_ROUTE = "shape=note, style=filled, fillcolor=\"#ddf0dc\"";
constexpr const char *GR_ROUTE_DASHED = "shape=note, style=\"filled,dashed\", fillcolor=\"#ddf0dc\"";
constexpr const char *GR_NO_INPUT = "(no input names it)";
constexpr const char *GR_NO_UC = "(no UC record)";
constexpr const char *GR_WROTE = "wrote %s: %zu entries, %zu nodes, %zu edges\n";
constexpr const char *GR_NO_DOT =
    "writing SVG needs `dot` (Debian package graphviz); -o FILE.dot writes the graph as DOT";

// ---- records as cells --------------------------------------------------------------

// A record's table cells by column ("index.in_label" -> "5002"): opcodes by
// name, addresses as text, MPLS ids as "{high, low} id".
using gr_cells_t = std::map<std::string, std::string>;
struct gr_rec_t {
    std::string key;  // Redis key
    gr_cells_t c;
    const std::string &operator[](const char *col) const {
        static const std::string none;
        auto it = c.find(col);
        return it != c.end() ? it->second : none;
    }
};

std::vector<gr_rec_t> gr_records(const ctl_store_t &store, const ProtobufCMessageDescriptor *desc) {
    std::vector<gr_rec_t> out;
    const ctl_tbl_t *t = ctl_tbl_find(desc->name);
    auto db = store.find(t->db);
    if (db == store.end()) return out;
    const std::string prefix = std::string(desc->name) + "|";
    const std::vector<std::string> cols = ctl_msg_columns(desc);
    for (const auto &[key, rec] : db->second) {
        mom_mem_msg_ptr m = key.rfind(prefix, 0) == 0 ? ctl_store_decode(desc, rec) : nullptr;
        if (m == nullptr) continue;
        std::vector<std::string> cells = ctl_msg_cells(m.get());
        gr_rec_t r{key, {}};
        for (size_t i = 0; i < cols.size() && i < cells.size(); ++i) r.c[cols[i]] = cells[i];
        out.push_back(std::move(r));
    }
    return out;
}

// A list cell ("[4001 16]") as a label stack ("4001,16"; "-" when empty).
std::string gr_list(const std::string &cell) {
    std::string out;
    for (char ch : cell)
        if (ch != '[' && ch != ']') out += ch == ' ' ? ',' : ch;
    return out.empty() ? "-" : out;
}

// The id of "{high, low} id".
std::string gr_id(const std::string &cell) { return cell.substr(cell.rfind(' ') + 1); }

// The label stack of an FTN or ILM key: its lb_cnt first slots.
std::string gr_slots(const gr_rec_t &r) {
    std::string out;
    int n = atoi(r["index.lb_cnt"].c_str());
    for (int i = 0; i < n && i < 6; ++i)
        out += (i > 0 ? "," : "") + r[("index.lb_st_" + std::to_string(i)).c_str()];
    return out.empty() ? "-" : out;
}

// The in-label an ILM's virtual route names: 231.x.y.z carries its low 24
// bits, ff07:0:<label>:: all 32.
std::string gr_vir_label(const std::string &ip) {
    uint8_t b[16] = {};
    if (inet_pton(AF_INET, ip.c_str(), b) == 1) return std::to_string((b[1] << 16) | (b[2] << 8) | b[3]);
    if (inet_pton(AF_INET6, ip.c_str(), b) == 1)
        return std::to_string((uint32_t{b[4]} << 24) | (b[5] << 16) | (b[6] << 8) | b[7]);
    return "";
}

// ---- the graph ---------------------------------------------------------------------

struct gr_filter_t {
    enum { ALL, VRF, LABEL } by = ALL;
    std::string n;
};

struct gr_nhop_t {
    std::string id, label;
    std::string route;  // the match text of its route
};
struct gr_entry_t {
    std::string label;
    std::vector<gr_nhop_t> nhops;
    std::string fe;  // an ILM's in-label number
};
struct gr_route_t {
    std::string id, label, adj;  // adj: the MPLS id it names
    bool used = false;
};
struct gr_adj_t {
    std::string label;
    bool used = false;
};

struct gr_t {
    std::map<std::string, gr_entry_t> entries;
    std::map<std::string, gr_route_t> routes;  // by match text
    std::map<std::string, gr_adj_t> adjs;      // by MPLS id
    std::map<std::string, gr_rec_t> fes;       // by in-label
    std::set<std::string> used_fes;
    std::map<std::string, std::string> nodes;  // id -> attributes
    std::set<std::pair<std::string, std::string>> edges;
};

// A quoted DOT string: backslashes and quotes escaped, lines joined with \n.
std::string gr_quote(const std::vector<std::string> &lines) {
    std::string out = "\"";
    for (size_t i = 0; i < lines.size(); ++i) {
        if (i > 0) out += "\\n";
        for (char ch : lines[i]) {
            if (ch == '"' || ch == '\\') out += '\\';
            out += ch == '\n' ? ' ' : ch;
        }
    }
    return out + "\"";
}

void gr_node(gr_t &g, const std::string &id, const std::vector<std::string> &label, const std::string &style) {
    g.nodes[id] = "label=" + gr_quote(label) + ", " + style;
}

std::vector<std::string> gr_split(const std::string &label) {
    std::vector<std::string> lines;
    std::istringstream in(label);
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    return lines;
}

void gr_add_nhop(gr_t &g, const std::string &entry, const std::string &entry_label, gr_nhop_t nh) {
    gr_entry_t &e = g.entries[entry];
    e.label = entry_label;
    e.nhops.push_back(std::move(nh));
}

void gr_inputs(const ctl_store_t &store, const gr_filter_t &f, gr_t &g) {
    auto in = [&](const std::string &vrf, const std::string &label) {
        return f.by == gr_filter_t::ALL || (f.by == gr_filter_t::VRF && vrf == f.n) ||
               (f.by == gr_filter_t::LABEL && label == f.n);
    };
    for (const gr_rec_t &r : gr_records(store, &p_mpls__mom_msg_ftn__descriptor)) {
        const std::string &vrf = r["index.vrf_id"];
        const std::string net = r["index.prefix"] + "/" + r["index.prefix_len"];
        if (!in(vrf, "")) continue;
        gr_add_nhop(g, "entry|ftn|" + vrf + "|" + net, "FTN vrf " + vrf + "\n" + net,
                    {"nh|" + r.key, r["index.con_nh"] + " via ifx " + r["index.out_ifx"] + "\n" +
                                        r["index.opcode"] + " " + gr_slots(r),
                     "1|" + vrf + "|" + r["index.prefix"] + "|" + r["index.prefix_len"] + "|" +
                         r["index.out_ifx"] + "|" + r["index.con_nh"]});
    }
    for (const gr_rec_t &r : gr_records(store, &u_mpls__udp_vc_ftn__descriptor)) {
        const std::string &vc = r["index.vc_ifx"];
        if (!in("", "")) continue;
        gr_add_nhop(g, "entry|vc_ftn|" + vc, "VC-FTN\nvc_ifx " + vc,
                    {"nh|" + r.key, r["index.co_nhop"] + " via ifx " + r["index.out_ifx"] + "\n" +
                                        r["opcode"] + " " + gr_list(r["label_stack"]),
                     "8|" + vc + "|" + r["index.out_ifx"] + "|" + r["index.co_nhop"]});
    }
    for (const gr_rec_t &r : gr_records(store, &p_mpls__mom_msg_ilm__descriptor)) {
        const std::string &label = r["index.in_label"], &vrf = r["vrfid"], &vc = r["vc_ifx"];
        if (!in(vrf == "0" ? "" : vrf, label)) continue;
        std::string title = "ILM in-label " + label + (vrf != "0" ? "\ninto vrf " + vrf : "") +
                            (vc != "0" ? "\nto vc_ifx " + vc : "");
        gr_add_nhop(g, "entry|ilm|" + label, title,
                    {"nh|" + r.key, r["index.co_nhop"] + " via ifx " + r["index.out_ifx"] + "\n" +
                                        r["index.opcode"] + " " + gr_slots(r),
                     "7|" + label + "|" + r["index.out_ifx"] + "|" + r["index.co_nhop"]});
        g.entries["entry|ilm|" + label].fe = label;
    }
}

void gr_outputs(const ctl_store_t &store, gr_t &g) {
    for (const gr_rec_t &r : gr_records(store, &s_route__comm_rt__descriptor)) {
        const std::string net = r["index.ip"] + "/" + r["index.mask_len"];
        g.routes[r["index.t_rt_owner"] + "|" + r["index.vrf"] + "|" + r["index.ip"] + "|" + r["index.mask_len"] +
                 "|" + r["index.nh_ifx"] + "|" + r["index.nh_ip"]] =
            {"rt|" + r.key, "EF route vrf " + r["index.vrf"] + "\n" + net + " via " + r["index.nh_ip"] +
                                "\nweight " + r["weight"],
             gr_id(r["index.mpls_id"])};
    }
    for (const gr_rec_t &r : gr_records(store, &s_route__vir_rt__descriptor)) {
        const std::string &owner = r["index.t_rt_owner"];
        const std::string entry = owner == "7" ? gr_vir_label(r["index.ip"]) : r["index.vrf"];
        g.routes[owner + "|" + entry + "|" + r["index.nh_ifx"] + "|" + r["index.nh_ip"]] =
            {"rt|" + r.key, "EF virtual route\n" + r["index.ip"] + "/" + r["index.mask_len"] + " via " +
                                r["index.nh_ip"] + "\nweight " + r["weight"],
             gr_id(r["index.mpls_id"])};
    }
    for (const gr_rec_t &r : gr_records(store, &s_route__in_sub_adj__descriptor)) {
        static const char *const owners[] = {"", "FTN", "", "", "", "", "", "ILM", "VC-FTN"};
        unsigned owner = static_cast<unsigned>(atoi(r["index.t_rt_owner"].c_str()));
        g.adjs[gr_id(r["index.mplsid"])] = {"inner adjacency " + std::string(owner < 9 ? owners[owner] : "") +
                                                "\nMPLS id " + r["index.mplsid"] + "\n" + r["opcode"] + " " +
                                                gr_list(r["labels"])};
    }
    for (gr_rec_t &r : gr_records(store, &u_mpls__udp_ilm__descriptor)) g.fes[r["index.in_label"]] = std::move(r);
}

std::vector<std::string> gr_fe_label(const gr_rec_t &r) {
    return {"FE in-label " + r["index.in_label"], r["opcode"] + " swap_label " + r["swap_label"]};
}

// The adjacency node of an MPLS id that an input's route names; dashed when
// no UC record holds it.
std::string gr_adj_node(gr_t &g, const std::string &id) {
    const std::string node = "adj|" + id;
    auto a = g.adjs.find(id);
    if (a != g.adjs.end()) {
        a->second.used = true;
        gr_node(g, node, gr_split(a->second.label), GR_ADJ);
    } else {
        gr_node(g, node, {"inner adjacency", "MPLS id " + id, GR_NO_UC}, GR_ADJ_DASHED);
    }
    return node;
}

void gr_entry(gr_t &g, const std::string &id, const gr_entry_t &e) {
    gr_node(g, id, gr_split(e.label), GR_ENTRY);
    std::set<std::string> adjs;
    for (const gr_nhop_t &nh : e.nhops) {
        gr_node(g, nh.id, gr_split(nh.label), GR_NHOP);
        g.edges.emplace(id, nh.id);
        auto rt = g.routes.find(nh.route);
        if (rt == g.routes.end()) continue;
        rt->second.used = true;
        const std::string adj = gr_adj_node(g, rt->second.adj);
        adjs.insert(adj);
        g.edges.emplace(nh.id, adj);
        gr_node(g, rt->second.id, gr_split(rt->second.label), GR_ROUTE);
        g.edges.emplace(adj, rt->second.id);
    }
    auto fe = e.fe.empty() ? g.fes.end() : g.fes.find(e.fe);
    if (fe == g.fes.end()) return;
    const std::string node = "fe|" + fe->second.key;
    g.used_fes.insert(fe->first);
    gr_node(g, node, gr_fe_label(fe->second), GR_ROUTE);
    if (adjs.empty()) adjs.insert(id);  // no programmed adjacency: the entry's own operation
    for (const std::string &a : adjs) g.edges.emplace(a, node);
}

// Outputs no input explains.
void gr_unexplained(gr_t &g) {
    for (auto &[match, rt] : g.routes)
        if (!rt.used) {
            std::vector<std::string> label = gr_split(rt.label);
            label.push_back(GR_NO_INPUT);
            gr_node(g, rt.id, label, GR_ROUTE_DASHED);
            const std::string adj = "adj|" + rt.adj;  // drawn below when a UC record holds it
            if (g.adjs.count(rt.adj) == 0 && g.nodes.count(adj) == 0)
                gr_node(g, adj, {"inner adjacency", "MPLS id " + rt.adj, GR_NO_UC}, GR_ADJ_DASHED);
            g.edges.emplace(adj, rt.id);
        }
    for (auto &[id, adj] : g.adjs)
        if (!adj.used) {
            std::vector<std::string> label = gr_split(adj.label);
            label.push_back(GR_NO_INPUT);
            gr_node(g, "adj|" + id, label, GR_ADJ_DASHED);
        }
    for (const auto &[label, fe] : g.fes)
        if (g.used_fes.count(label) == 0) {
            std::vector<std::string> text = gr_fe_label(fe);
            text.push_back(GR_NO_INPUT);
            gr_node(g, "fe|" + fe.key, text, GR_ROUTE_DASHED);
        }
}

std::string gr_dot(const gr_t &g) {
    std::string out = GR_HEAD;
    for (const auto &[id, attrs] : g.nodes) out += "  " + gr_quote({id}) + " [" + attrs + "];\n";
    for (const auto &[from, to] : g.edges) out += "  " + gr_quote({from}) + " -> " + gr_quote({to}) + ";\n";
    return out + "}\n";
}

// ---- writing ---------------------------------------------------------------------------

bool gr_has_dot() {
    const char *path = getenv("PATH");
    std::istringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
    for (std::string d; std::getline(dirs, d, ':');)
        if (!d.empty() && access((d + "/dot").c_str(), X_OK) == 0) return true;
    return false;
}

// dot -Tsvg -o file, fed the DOT text on its standard input. 0, or -1 with err.
int gr_svg(const std::string &dot, const std::string &file, std::string &err) {
    if (!gr_has_dot()) return err = GR_NO_DOT, -1;
    int fds[2];
    if (pipe(fds) != 0) return err = std::string("pipe: ") + strerror(errno), -1;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[0], STDIN_FILENO);
        close(fds[0]);
        close(fds[1]);
        execlp("dot", "dot", "-Tsvg", "-o", file.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    close(fds[0]);
    bool sent = pid > 0;
    for (size_t at = 0; sent && at < dot.size();) {
        ssize_t n = write(fds[1], dot.data() + at, dot.size() - at);
        if (n < 0 && errno == EINTR) continue;
        sent = n > 0;
        at += n > 0 ? static_cast<size_t>(n) : 0;
    }
    close(fds[1]);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) < 0) return err = std::string("dot: ") + strerror(errno), -1;
    if (!sent || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return err = "dot -Tsvg -o " + file + " failed (status " + std::to_string(WEXITSTATUS(status)) + ")", -1;
    return 0;
}

int gr_write(const std::string &dot, const std::string &file, std::string &err) {
    if (file.size() > 4 && file.compare(file.size() - 4, 4, ".svg") == 0) return gr_svg(dot, file, err);
    std::ofstream out(file);
    out << dot;
    out.close();
    if (!out) return err = "cannot write " + file + ": " + strerror(errno), -1;
    return 0;
}

int gr_parse_filter(const ctl_args_t &a, gr_filter_t &f, std::string &err) {
    int given = a.has("--all") + a.has("--vrf") + a.has("--label");
    if (given > 1) return err = "give one of --vrf, --label and --all", -1;
    const char *opt = a.has("--vrf") ? "--vrf" : a.has("--label") ? "--label" : nullptr;
    if (opt == nullptr) return 0;
    f.by = a.has("--vrf") ? gr_filter_t::VRF : gr_filter_t::LABEL;
    f.n = a.value(opt);
    char *end = nullptr;
    unsigned long v = strtoul(f.n.c_str(), &end, 10);
    if (f.n.empty() || *end != '\0' || v > UINT32_MAX || f.n[0] == '-')
        return err = std::string(opt) + " expects a number, not '" + f.n + "'", -1;
    f.n = std::to_string(v);
    return 0;
}

}  // namespace

int ctl_cmd_graph(ctl_global_t &g, const std::vector<std::string> &words) {
    // The one short option, "-o FILE", is read here as "--output FILE".
    std::vector<std::string> w = words;
    for (std::string &word : w)
        if (word == "-o") word = "--output";
    ctl_args_t a;
    std::string err;
    if (ctl_parse_args(g, w, {{"--vrf", true}, {"--label", true}, {"--all", false}, {"--output", true}}, 0, a,
                       err) != 0)
        return ctl_fail("graph", err, CTL_EXIT_USAGE);
    if (a.help) return fputs(CTL_HELP_GRAPH, stdout), CTL_EXIT_OK;
    gr_filter_t f;
    if (!a.pos.empty()) return ctl_fail("graph", "takes no positional arguments", CTL_EXIT_USAGE);
    if (gr_parse_filter(a, f, err) != 0) return ctl_fail("graph", err, CTL_EXIT_USAGE);
    ctl_redis_t r;
    ctl_store_t store;
    if (ctl_redis_connect(ctl_redis_addr(g.redis), r, err) != 0 || ctl_redis_read_store(r, store, err) != 0)
        return ctl_fail("graph", err);
    gr_t gr;
    gr_inputs(store, f, gr);
    gr_outputs(store, gr);
    for (const auto &[id, e] : gr.entries) gr_entry(gr, id, e);
    if (f.by == gr_filter_t::ALL) gr_unexplained(gr);
    const std::string dot = gr_dot(gr);
    if (!a.has("--output")) return fputs(dot.c_str(), stdout), CTL_EXIT_OK;
    const std::string file = a.value("--output");
    if (gr_write(dot, file, err) != 0) return ctl_fail("graph", err);
    printf(GR_WROTE, file.c_str(), gr.entries.size(), gr.nodes.size(), gr.edges.size());
    return CTL_EXIT_OK;
}
