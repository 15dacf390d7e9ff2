// Congestion control stand-in: nothing here throttles; it keeps what was
// registered, per database and topic, so the debug output can list it.
#include "platform/cgst/libcgstctrl.h"

#include <protobuf-c/protobuf-c.h>

namespace {

std::vector<cgst_reg_t> &cgst_regs() {
    static std::vector<cgst_reg_t> regs;
    return regs;
}

std::vector<cgst_event_reg_t> &cgst_events() {
    static std::vector<cgst_event_reg_t> events;
    return events;
}

// A topic is named by the item message it carries.
std::string cgst_topic_name(const void *item) {
    if (item == nullptr) return "unknown";
    const auto *msg = static_cast<const ProtobufCMessage *>(item);
    const ProtobufCMessageDescriptor *d = msg->descriptor;
    if (d == nullptr || d->magic != PROTOBUF_C__MESSAGE_DESCRIPTOR_MAGIC || d->name == nullptr)
        return "unknown";
    return d->name;
}

}  // namespace

int libcgstctrl_gen_init(void * /*global*/, uint32_t db, const char *module) {
    cgst_regs().push_back(cgst_reg_t{db, module != nullptr ? module : "", ""});
    return 0;
}

int libcgstctrl_gen_topic_reg(void * /*global*/, uint32_t db, const char *module, const void *item,
                              uint32_t /*param*/) {
    cgst_regs().push_back(cgst_reg_t{db, module != nullptr ? module : "", cgst_topic_name(item)});
    return 0;
}

int libcgstctrl_gen_event_reg(const char *module, cgst_event_cb_t cb) {
    cgst_events().push_back(cgst_event_reg_t{module != nullptr ? module : "", cb});
    return 0;
}

const std::vector<cgst_reg_t> &libcgstctrl_registrations() { return cgst_regs(); }

const std::vector<cgst_event_reg_t> &libcgstctrl_event_registrations() { return cgst_events(); }

void libcgstctrl_reset() {
    cgst_regs().clear();
    cgst_events().clear();
}
