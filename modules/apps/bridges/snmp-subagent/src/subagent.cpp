#include "subagent.hpp"

// net-snmp's headers must come in this order.
// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/agent/agent_callbacks.h>
// clang-format on

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>
#include <vector>

namespace xpon::snmp_subagent {

namespace {

std::vector<oid> to_netsnmp(const Oid& name) {
  return {name.begin(), name.end()};
}

Oid from_netsnmp(const oid* name, std::size_t length) {
  Oid result;
  result.reserve(length);
  for (std::size_t i = 0; i < length; ++i) {
    result.push_back(static_cast<std::uint32_t>(name[i]));
  }
  return result;
}

bool starts_with(const Oid& name, const Oid& prefix) {
  return name.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), name.begin());
}

void set_value(netsnmp_variable_list* variable, const Value& value) {
  switch (value.syntax) {
    case Syntax::Integer: {
      const auto number = static_cast<long>(value.number);
      snmp_set_var_typed_value(variable, ASN_INTEGER, &number, sizeof(number));
      break;
    }
    case Syntax::Unsigned:
    case Syntax::TimeTicks: {
      const auto number = static_cast<u_long>(value.number);
      snmp_set_var_typed_value(variable, value.syntax == Syntax::Unsigned ? ASN_UNSIGNED : ASN_TIMETICKS, &number,
                               sizeof(number));
      break;
    }
    case Syntax::OctetString:
      snmp_set_var_typed_value(variable, ASN_OCTET_STR, value.octets.data(), value.octets.size());
      break;
    case Syntax::ObjectId: {
      const auto object = to_netsnmp(value.object);
      snmp_set_var_typed_value(variable, ASN_OBJECT_ID, object.data(), object.size() * sizeof(oid));
      break;
    }
  }
}

// Answers GET and GETNEXT from the rows of the subtree the handler was registered for. A GETNEXT
// past the last row is left unanswered: the master agent goes on to the next subtree.
int handle_request(netsnmp_mib_handler* /*handler*/, netsnmp_handler_registration* registration,
                   netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  const auto* subtree = static_cast<const Subagent::Subtree*>(registration->my_reg_void);
  for (auto* request = requests; request != nullptr; request = request->next) {
    if (request->processed != 0) {
      continue;
    }
    auto* variable = request->requestvb;
    const auto name = from_netsnmp(variable->name, variable->name_length);
    if (info->mode == MODE_GET) {
      const auto found = subtree->rows.find(name);
      if (found == subtree->rows.end()) {
        netsnmp_set_request_error(info, request, SNMP_NOSUCHINSTANCE);
      } else {
        set_value(variable, found->second);
      }
    } else if (info->mode == MODE_GETNEXT) {
      const auto found = subtree->rows.upper_bound(name);
      if (found != subtree->rows.end() && starts_with(found->first, subtree->root)) {
        const auto next = to_netsnmp(found->first);
        snmp_set_var_objid(variable, next.data(), next.size());
        set_value(variable, found->second);
      }
    } else {
      netsnmp_set_request_error(info, request, SNMP_ERR_NOTWRITABLE);
    }
  }
  return SNMP_ERR_NOERROR;
}

bool register_subtree(Subagent::Subtree& subtree, const char* name) {
  const auto root = to_netsnmp(subtree.root);
  auto* registration =
      netsnmp_create_handler_registration(name, handle_request, root.data(), root.size(), HANDLER_CAN_RONLY);
  if (registration == nullptr) {
    return false;
  }
  registration->my_reg_void = &subtree;
  return netsnmp_register_handler(registration) == MIB_REGISTERED_OK;
}

void on_refresh(unsigned int /*client*/, void* subagent) {
  static_cast<Subagent*>(subagent)->refresh();
}

int on_index_start(int /*major*/, int /*minor*/, void* /*server*/, void* subagent) {
  static_cast<Subagent*>(subagent)->connected(true);
  return 0;
}

int on_index_stop(int /*major*/, int /*minor*/, void* /*server*/, void* subagent) {
  static_cast<Subagent*>(subagent)->connected(false);
  return 0;
}

// net-snmp's own log lines go to the subagent's log.
int on_log(int /*major*/, int /*minor*/, void* server, void* logger) {
  const auto* message = static_cast<const snmp_log_message*>(server);
  std::string_view text = message->msg != nullptr ? message->msg : "";
  while (!text.empty() && text.back() == '\n') {
    text.remove_suffix(1);
  }
  if (!text.empty()) {
    const int level = message->priority <= LOG_ERR       ? logger::kError
                      : message->priority <= LOG_WARNING ? logger::kWarning
                                                         : logger::kInfo;
    static_cast<logger::ILogger*>(logger)->logf(level, "net-snmp: {}", text);
  }
  return 0;
}

// The model as the rows use it: the times of the daemon's repeated reports of a raised alarm are
// not served, so a report that changes nothing else leaves the model equal to the last one.
board_view::BoardModel served(board_view::BoardModel model) {
  model.alarms_updated.reset();
  for (auto& [key, alarm] : model.alarms) {
    alarm.last_seen = alarm.raised;
  }
  return model;
}

netsnmp_variable_list* to_varlist(const std::vector<Varbind>& varbinds) {
  netsnmp_variable_list* list = nullptr;
  for (const auto& varbind : varbinds) {
    const auto name = to_netsnmp(varbind.name);
    auto* variable = snmp_varlist_add_variable(&list, name.data(), name.size(), ASN_NULL, nullptr, 0);
    set_value(variable, varbind.value);
  }
  return list;
}

}  // namespace

Subagent::Subagent(Snapshot snapshot, std::shared_ptr<logger::ILogger> logger, SubagentOptions options)
    : snapshot_(std::move(snapshot)), logger_(std::move(logger)), options_(std::move(options)) {
  entities_.root = Oid(oids::kEntPhysicalEntry.begin(), oids::kEntPhysicalEntry.end() - 1);
  sensors_.root = Oid(oids::kEntPhySensorEntry.begin(), oids::kEntPhySensorEntry.end() - 1);
  entity_general_.root = oids::kEntLastChangeTime;
  alarms_.root = Oid(oids::kAlarmActiveEntry.begin(), oids::kAlarmActiveEntry.end() - 1);
  alarm_last_changed_.root = oids::kAlarmActiveLastChanged;
  board_mib_.root = options_.board_mib_arc + Oid{1};
}

Subagent::~Subagent() = default;

void Subagent::post(const board_view::AlarmTransition& transition) {
  std::lock_guard lock(mutex_);
  pending_.push_back(transition);
}

std::uint32_t Subagent::uptime_now() const {
  return static_cast<std::uint32_t>(netsnmp_get_agent_uptime());
}

void Subagent::connected(bool now_connected) {
  if (connected_ == now_connected) {
    return;
  }
  const auto socket =
      options_.agentx_socket.empty() ? std::string("net-snmp's default AgentX socket") : options_.agentx_socket;
  if (now_connected) {
    logger_->logf(logger::kNotice, "registered with the master agent at {}", socket);
  } else if (connected_) {
    logger_->warning("lost the master agent; trying again every {} s", options_.ping_interval);
  } else {
    logger_->warning("no master agent at {} yet; trying again every {} s", socket, options_.ping_interval);
  }
  connected_ = now_connected;
}

void Subagent::send_alarm(const board_view::AlarmTransition& transition, std::uint32_t active_index) {
  auto* list = to_varlist(alarm_notification(model_, transition, active_index));
  send_v2trap(list);
  snmp_free_varbind(list);
}

void Subagent::send_config_change() {
  auto* list = to_varlist({{oids::kSnmpTrapOid, object_id(oids::kEntConfigChange)}});
  send_v2trap(list);
  snmp_free_varbind(list);
}

void Subagent::refresh() {
  if (stopping_.load()) {
    return;
  }
  const auto now = uptime_now();
  // The transitions first, then the snapshot: an alarm raised in between is indexed by follow()
  // and keeps that index when its transition comes; one cleared in between keeps its index
  // until its transition, so each notification names the row it is about.
  std::deque<board_view::AlarmTransition> transitions;
  {
    std::lock_guard lock(mutex_);
    transitions.swap(pending_);
  }
  for (const auto& transition : transitions) {
    const AlarmKey key{transition.alarm.alarm_id, transition.alarm.instance};
    if (transition.raised) {
      send_alarm(transition, alarm_indexes_.raise(key));
    } else if (const auto index = alarm_indexes_.clear(key)) {
      send_alarm(transition, *index);
    }
  }

  auto fresh = served(snapshot_());
  // The view changes the model once a round (or on an event): until then the rows stand. The
  // transitions above have moved the alarm indexes, so they always rebuild.
  if (built_ && transitions.empty() && fresh == model_) {
    return;
  }
  model_ = std::move(fresh);
  built_ = true;
  for (const auto& [key, module] : model_.sfp) {
    cages_.insert(key);
  }
  alarm_indexes_.follow(model_);
  const auto origin = board_view::Clock::now() - std::chrono::milliseconds(std::int64_t{10} * now);
  const auto entities = physical_entities(model_, cages_);

  auto entity_rows_now = entity_rows(entities);
  if (entity_rows_now != entities_.rows) {
    entities_changed_ = now;
    if (baseline_) {
      send_config_change();
    }
    entities_.rows = std::move(entity_rows_now);
  }
  // Before the first list of front modules (the last list of a round) the board is still being
  // discovered: rows appear without an entConfigChange each.
  baseline_ = baseline_ || model_.sfp_read[static_cast<std::size_t>(board_view::PortGroup::Front)].updated.has_value();
  entity_general_.rows = {{oids::kEntLastChangeTime + Oid{0}, time_ticks(entities_changed_)}};

  sensors_.rows = sensor_rows(entities, origin, options_.update_rate);
  auto alarm_rows_now = alarm_rows(model_, alarm_indexes_.indexes());
  if (alarm_rows_now != alarms_.rows) {
    alarms_changed_ = now;
    alarms_.rows = std::move(alarm_rows_now);
  }
  alarm_last_changed_.rows = {{oids::kAlarmActiveLastChanged + Oid{0}, time_ticks(alarms_changed_)}};
  board_mib_.rows = board_mib_rows(model_, options_.board_mib_arc);
}

bool Subagent::run() {
  // net-snmp keeps its agent state in globals: one subagent per process.
  snmp_enable_calllog();
  snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, on_log, logger_.get());
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 1);
  if (!options_.agentx_socket.empty()) {
    netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, options_.agentx_socket.c_str());
  }
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
  // The subagent names nothing by label: the MIB files Debian ships (or does not) are no concern
  // of its log (main also sets MIBS empty, so that none is parsed).
  netsnmp_ds_set_int(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_MIB_WARNINGS, 0);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_MIB_ERRORS, 0);
  snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_START, on_index_start, this);
  snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_STOP, on_index_stop, this);
  if (init_agent(options_.name.c_str()) != 0) {
    logger_->error("net-snmp's agent did not start");
    return false;
  }
  // After init_agent(), which sets its own default; read when init_snmp() connects and whenever
  // the master is lost (the pace of the reconnection attempts).
  netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL,
                     static_cast<int>(options_.ping_interval));
  refresh();
  const std::array<std::pair<Subtree*, const char*>, 6> subtrees{{{&entities_, "entPhysicalTable"},
                                                                  {&entity_general_, "entLastChangeTime"},
                                                                  {&sensors_, "entPhySensorTable"},
                                                                  {&alarm_last_changed_, "alarmActiveLastChanged"},
                                                                  {&alarms_, "alarmActiveTable"},
                                                                  {&board_mib_, "xponBoardObjects"}}};
  for (const auto& [subtree, name] : subtrees) {
    if (!register_subtree(*subtree, name)) {
      logger_->error("could not register {}", name);
      return false;
    }
  }
  init_snmp(options_.name.c_str());
  if (!connected_) {
    // No start callback came: the master agent is not there yet; net-snmp keeps trying.
    connected(false);
  }
  const auto refresh_us = std::chrono::duration_cast<std::chrono::microseconds>(options_.refresh).count();
  timeval every{static_cast<time_t>(refresh_us / 1000000), static_cast<suseconds_t>(refresh_us % 1000000)};
  snmp_alarm_register_hr(every, SA_REPEAT, on_refresh, this);
  while (!stopping_.load()) {
    agent_check_and_process(1);
  }
  // snmp_shutdown() frees the argument of every callback still registered: ours are not its own.
  snmp_unregister_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_START, on_index_start, this, 1);
  snmp_unregister_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_STOP, on_index_stop, this, 1);
  snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, on_log, logger_.get(), 1);
  snmp_shutdown(options_.name.c_str());
  // Frees the registrations, whose handlers point into this object.
  shutdown_agent();
  return true;
}

}  // namespace xpon::snmp_subagent
