#include "cfg_tool.hpp"

#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/cfgdb/change_event.hpp"
#include "xpon/cfgdb/schema.hpp"
#include "xpon/cfgdb/store.hpp"
#include "xpon/core/host_path.hpp"

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <variant>

namespace xpon::cfg_tool {
namespace {

using cfgdb::SectionChange;
using cfgdb::SectionSpec;
using cfgdb::SectionValues;
using json = nlohmann::ordered_json;

std::string message_of(const core::ErrorPayload& error) {
  return error.info && error.info->message ? *error.info->message : error.to_string();
}

// A refusal of the operator's input: reported, nothing written.
struct Refusal {
  std::string message;
};

std::string section_list() {
  std::string names;
  for (const auto& section : cfgdb::sections()) {
    names += fmt::format("  {:<26} {:>3}  {}\n", section.name, section.id, section.description);
    for (const auto& field : section.fields) {
      names += fmt::format("      {:<15} {}..{}{}{}, default {}\n", field.name, field.min, field.max,
                           field.unit.empty() ? "" : " ", field.unit, field.default_value);
    }
  }
  return names;
}

json fields_json(const SectionSpec& section, const SectionValues& values) {
  json fields = json::object();
  for (std::size_t f = 0; f < section.fields.size(); ++f) {
    fields[std::string(section.fields[f].name)] = values[f];
  }
  return fields;
}

class Tool {
 public:
  Tool(std::ostream& out, std::ostream& err, const EndpointFactory& make_endpoint)
      : out_(out), err_(err), make_endpoint_(make_endpoint) {}

  int refuse(const std::string& message) {
    fmt::print(err_, "xpon-cfg: {}\n", message);
    return kRefused;
  }

  int fail(const std::string& message) {
    fmt::print(err_, "xpon-cfg: {}\n", message);
    return kFailed;
  }

  // Opens the database only once the input has passed the checks that need no database.
  cfgdb::Store* store() {
    if (!store_) {
      auto opened = cfgdb::Store::open(core::host_path(cfgdb::kDatabasePath), std::string(cfgdb::kDatabasePath));
      if (!opened) {
        open_error_ = message_of(opened.error());
        return nullptr;
      }
      store_ = std::move(opened).value();
    }
    return store_.get();
  }

  int show(const std::optional<std::string>& name, bool as_json) {
    const SectionSpec* only = nullptr;
    if (name) {
      only = cfgdb::find_section(*name);
      if (only == nullptr) {
        return refuse(fmt::format("unknown section '{}'", *name));
      }
    }
    auto* db = store();
    if (db == nullptr) {
      return fail(open_error_);
    }
    if (as_json) {
      // JSON is what import reads back, so it is printed whole or not at all.
      json document = json::object();
      if (only != nullptr) {
        auto values = db->read(*only);
        if (!values) {
          return fail(message_of(values.error()));
        }
        document[std::string(only->name)] = fields_json(*only, values.value());
      } else {
        auto all = db->read_all();
        if (!all) {
          return fail(message_of(all.error()));
        }
        for (std::size_t i = 0; i < cfgdb::sections().size(); ++i) {
          const auto& section = cfgdb::sections()[i];
          document[std::string(section.name)] = fields_json(section, all.value()[i]);
        }
      }
      fmt::print(out_, "{}\n", document.dump(2));
      return kDone;
    }
    // The text listing shows every readable section even when another one holds a bad value.
    int status = kDone;
    for (const auto& section : cfgdb::sections()) {
      if (only != nullptr && only != &section) {
        continue;
      }
      auto values = db->read(section);
      if (!values) {
        fmt::print(err_, "xpon-cfg: {}\n", message_of(values.error()));
        status = kFailed;
        continue;
      }
      fmt::print(out_, "{} ({})\n", section.name, section.id);
      if (section.fields.empty()) {
        fmt::print(out_, "  (no fields)\n");
      }
      for (std::size_t f = 0; f < section.fields.size(); ++f) {
        fmt::print(out_, "  {} = {}\n", section.fields[f].name, values.value()[f]);
      }
    }
    return status;
  }

  int set(const std::string& name, const std::vector<std::string>& assignments) {
    const SectionSpec* section = cfgdb::find_section(name);
    if (section == nullptr) {
      return refuse(fmt::format("unknown section '{}'", name));
    }
    if (assignments.empty()) {
      return refuse(fmt::format("{}: nothing to set; give field=value", section->name));
    }
    SectionChange change{section, std::vector<std::optional<std::uint32_t>>(section->fields.size())};
    for (const auto& assignment : assignments) {
      const auto equals = assignment.find('=');
      if (equals == std::string::npos) {
        return refuse(fmt::format("{}: '{}' is not field=value", section->name, assignment));
      }
      const std::string field_name = assignment.substr(0, equals);
      const auto index = section->field_index(field_name);
      if (!index) {
        return refuse(fmt::format("{}: unknown field '{}'", section->name, field_name));
      }
      if (change.values[*index]) {
        return refuse(fmt::format("{}: {} is given twice", section->name, field_name));
      }
      auto value =
          cfgdb::parse_value(*section, section->fields[*index], std::string_view(assignment).substr(equals + 1));
      if (!value) {
        return refuse(message_of(value.error()));
      }
      change.values[*index] = value.value();
    }
    return commit({change});
  }

  int reset(const std::optional<std::string>& name) {
    std::vector<SectionChange> changes;
    for (const auto& section : cfgdb::sections()) {
      changes.push_back(SectionChange{&section, {}});
      for (auto value : cfgdb::default_values(section)) {
        changes.back().values.emplace_back(value);
      }
    }
    if (name) {
      const SectionSpec* section = cfgdb::find_section(*name);
      if (section == nullptr) {
        return refuse(fmt::format("unknown section '{}'", *name));
      }
      std::erase_if(changes, [section](const SectionChange& change) { return change.section != section; });
    }
    return commit(changes);
  }

  int import(const std::string& file) {
    std::ostringstream text;
    if (file == "-") {
      text << std::cin.rdbuf();
    } else {
      std::ifstream in(file, std::ios::binary);
      if (!in) {
        return refuse(fmt::format("cannot read {}: {}", file, std::strerror(errno)));
      }
      text << in.rdbuf();
    }
    json document;
    try {
      document = json::parse(text.str());
    } catch (const json::exception& error) {
      return refuse(fmt::format("{}: not valid JSON: {}", file, error.what()));
    }
    auto changes = changes_from(document, file);
    if (auto* refusal = std::get_if<Refusal>(&changes)) {
      return refuse(refusal->message);
    }
    return commit(std::get<std::vector<SectionChange>>(changes));
  }

 private:
  std::variant<Refusal, std::vector<SectionChange>> changes_from(const json& document, const std::string& file) {
    if (!document.is_object()) {
      return Refusal{fmt::format("{}: the top level must be an object of sections", file)};
    }
    std::vector<SectionChange> changes;
    std::set<const SectionSpec*> seen;
    for (const auto& [name, fields] : document.items()) {
      const SectionSpec* section = cfgdb::find_section(name);
      if (section == nullptr) {
        return Refusal{fmt::format("unknown section '{}'", name)};
      }
      if (!seen.insert(section).second) {
        return Refusal{fmt::format("{}: section given twice", section->name)};
      }
      if (!fields.is_object()) {
        return Refusal{fmt::format("{}: must be an object of fields", section->name)};
      }
      SectionChange change{section, std::vector<std::optional<std::uint32_t>>(section->fields.size())};
      for (const auto& [field_name, value] : fields.items()) {
        const auto index = section->field_index(field_name);
        if (!index) {
          return Refusal{fmt::format("{}: unknown field '{}'", section->name, field_name)};
        }
        const auto& field = section->fields[*index];
        if (value.is_number_unsigned() || value.is_number_integer()) {
          if (value.is_number_integer() && !value.is_number_unsigned()) {
            return Refusal{fmt::format("{}: {}={} is out of range {}..{}", section->name, field.name, value.dump(),
                                       field.min, field.max)};
          }
          const auto number = value.get<std::uint64_t>();
          if (number < field.min || number > field.max) {
            return Refusal{fmt::format("{}: {}={} is out of range {}..{}", section->name, field.name, number, field.min,
                                       field.max)};
          }
          change.values[*index] = static_cast<std::uint32_t>(number);
        } else {
          return Refusal{fmt::format("{}: {}={} is not a number", section->name, field.name, value.dump())};
        }
      }
      changes.push_back(std::move(change));
    }
    return changes;
  }

  int commit(const std::vector<SectionChange>& changes) {
    auto* db = store();
    if (db == nullptr) {
      return fail(open_error_);
    }
    auto changed = db->change(changes);
    if (!changed) {
      if (changed.error().error == core::Error::InvalidInputArg) {
        return refuse(message_of(changed.error()));
      }
      return fail(message_of(changed.error()));
    }
    for (const auto& change : changes) {
      const bool was_changed =
          std::find(changed.value().begin(), changed.value().end(), change.section->id) != changed.value().end();
      fmt::print(out_, "{} ({}): {}\n", change.section->name, change.section->id,
                 was_changed ? "changed" : "unchanged");
    }
    if (changed.value().empty()) {
      return kDone;
    }
    auto endpoint = make_endpoint_();
    if (!endpoint) {
      return fail(fmt::format("the change is saved but {} was not published: {}", cfgdb::kSectionsChangedName,
                              message_of(endpoint.error())));
    }
    auto published = cfgdb::publish_sections_changed(*endpoint.value(), changed.value());
    if (!published) {
      return fail(fmt::format("the change is saved but {} was not published: {}", cfgdb::kSectionsChangedName,
                              message_of(published.error())));
    }
    return kDone;
  }

  std::ostream& out_;
  std::ostream& err_;
  const EndpointFactory& make_endpoint_;
  std::unique_ptr<cfgdb::Store> store_;
  std::string open_error_;
};

}  // namespace

int run(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err,
        const EndpointFactory& make_endpoint) {
  CLI::App app{
      "Shows and changes the configuration database of the system manager.\n"
      "Sections are named by name (any letter case) or number. After a change is saved,\n"
      "the event IPC_EVENT_CFGDB__SECTIONS_CHANGED tells the daemons which sections changed.\n"
      "Exit status: 0 done, 1 database or bus failure, 2 refused (nothing written).",
      "xpon-cfg"};
  app.footer("Sections and fields (range, default):\n" + section_list());
  app.require_subcommand(1);

  std::optional<std::string> show_section;
  bool show_json = false;
  auto* show = app.add_subcommand("show", "Print one section or all of them");
  show->add_option("SECTION", show_section, "section name or number");
  show->add_flag("--json", show_json, "print JSON (the format import reads)");

  std::string set_section;
  std::vector<std::string> assignments;
  auto* set = app.add_subcommand("set", "Change fields of a section; every value is checked before any is written");
  set->add_option("SECTION", set_section, "section name or number")->required();
  set->add_option("ASSIGNMENTS", assignments, "field=value (decimal, or hexadecimal with 0x)");

  std::optional<std::string> reset_section;
  auto* reset = app.add_subcommand("reset", "Put one section or all of them back to the defaults");
  reset->add_option("SECTION", reset_section, "section name or number");

  app.add_subcommand("export", "Print every section as JSON");

  std::string import_file;
  auto* import = app.add_subcommand(
      "import", "Apply a JSON document as export prints it (any subset of sections and fields); all or nothing");
  import->add_option("FILE", import_file, "JSON file, or - for standard input")->required();

  std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
  try {
    app.parse(reversed);
  } catch (const CLI::CallForHelp&) {
    fmt::print(out, "{}", app.help());
    return kDone;
  } catch (const CLI::CallForAllHelp&) {
    fmt::print(out, "{}", app.help("", CLI::AppFormatMode::All));
    return kDone;
  } catch (const CLI::ParseError& error) {
    fmt::print(err, "xpon-cfg: {}\nRun with --help for more information.\n", error.what());
    return kRefused;
  }

  Tool tool(out, err, make_endpoint);
  if (show->parsed()) {
    return tool.show(show_section, show_json);
  }
  if (set->parsed()) {
    return tool.set(set_section, assignments);
  }
  if (reset->parsed()) {
    return tool.reset(reset_section);
  }
  if (import->parsed()) {
    return tool.import(import_file);
  }
  return tool.show(std::nullopt, true);
}

}  // namespace xpon::cfg_tool
