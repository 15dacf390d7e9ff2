// The daemon's figures, one snapshot at a time: entries, next hops, adjacencies,
// capacities, waiting records, refusals, notices handled, data syncs, the
// MOM link and the writes sent to the lower layers. The metrics endpoint
// serves them as OpenMetrics text; the debug command "show-stats" prints the
// same samples. Names, helps and the text layout live in the table of
// ce_l3vpn_stats.cpp.
#pragma once
#include <string>
#include <utility>
#include <vector>

enum ce_stats_type_t { CE_STATS_GAUGE = 0, CE_STATS_COUNTER = 1 };

using ce_stats_labels_t = std::vector<std::pair<std::string, std::string>>;

// One sample. A counter's sample name is its metric name plus "_total".
struct ce_stats_row_t {
    const char *name;
    const char *help;
    ce_stats_type_t type;
    ce_stats_labels_t labels;
    double value;
};

// Every figure now, metric by metric in the table's order.
std::vector<ce_stats_row_t> ce_l3vpn_stats_snapshot(void);

// OpenMetrics text: per metric "# HELP", "# TYPE" and its samples; "# EOF" last.
std::string ce_l3vpn_stats_openmetrics(const std::vector<ce_stats_row_t> &rows);
// The samples alone, one `name{labels} value` line each. Label values are
// escaped in both forms (\\, \", \n).
std::string ce_l3vpn_stats_samples(const std::vector<ce_stats_row_t> &rows);

// The data sync, timed by ce_l3_data_check: at its start, and at the end of
// a sync that completed (a sync whose reads failed is not counted).
void ce_l3vpn_stats_ds_begin(void);
void ce_l3vpn_stats_ds_end(void);
