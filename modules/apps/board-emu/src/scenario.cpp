#include "xpon/board_emu/scenario.hpp"

#include "json_reader.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace xpon::board_emu {

namespace {

core::ErrorPayload refused(const std::string& text) {
  return {core::Error::InvalidInputArg, text};
}

}  // namespace

core::Result<Scenario> parse_scenario(std::string_view text) {
  auto text_parsed = parse_json_text(text);
  if (!text_parsed) {
    return text_parsed.error();
  }
  Json document = std::move(text_parsed.value());
  if (!document.is_object()) {
    return refused(fmt::format("a scenario must be a JSON object, not {}", detail::describe(document)));
  }

  Scenario scenario;
  try {
    if (document.contains("description")) {
      scenario.description = detail::read_text(document.at("description"), "description", 1000);
      document.erase("description");
    }
    if (document.contains("timeline")) {
      const Json timeline = document.at("timeline");
      document.erase("timeline");
      if (!timeline.is_array()) {
        throw detail::FieldError("timeline", fmt::format("must be a list, not {}", detail::describe(timeline)));
      }
      std::size_t index = 0;
      for (const Json& entry : timeline) {
        const auto step_path = detail::element_path("timeline", index++);
        detail::ObjectReader step(entry, step_path);
        TimelineStep parsed;
        const Json* at = step.get("at_ms");
        if (at == nullptr) {
          throw detail::FieldError(step.path_of("at_ms"), "is missing");
        }
        parsed.at = std::chrono::milliseconds(detail::read_integer(*at, step.path_of("at_ms"), 0, 86400000));
        const Json* patch = step.get("patch");
        if (patch == nullptr) {
          throw detail::FieldError(step.path_of("patch"), "is missing");
        }
        parsed.patch = *patch;
        step.finish();
        scenario.timeline.push_back(std::move(parsed));
      }
    }
  } catch (const detail::FieldError& error) {
    return refused(error.what());
  }

  auto model = model_from_json(document);
  if (!model) {
    return model.error();
  }
  scenario.model = std::move(model.value());

  // Steps run in time order; equal times keep the order of the file.
  std::vector<std::size_t> order(scenario.timeline.size());
  for (std::size_t i = 0; i < order.size(); ++i) {
    order[i] = i;
  }
  std::stable_sort(order.begin(), order.end(), [&](std::size_t left, std::size_t right) {
    return scenario.timeline[left].at < scenario.timeline[right].at;
  });

  // Each step must fit the model it will meet, so a bad step stops the start instead of
  // failing minutes later.
  BoardModel expected = scenario.model;
  std::vector<TimelineStep> sorted;
  for (const std::size_t index : order) {
    auto patched = apply_patch(expected, scenario.timeline[index].patch,
                               fmt::format("{}.patch", detail::element_path("timeline", index)));
    if (!patched) {
      return patched.error();
    }
    expected = std::move(patched.value());
    sorted.push_back(std::move(scenario.timeline[index]));
  }
  scenario.timeline = std::move(sorted);
  return scenario;
}

core::Result<Scenario> load_scenario_file(const std::string& path) {
  // A directory opens as a stream on Linux and only fails on reading; name it plainly instead.
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) {
    return refused(fmt::format("cannot read {}: {}", path, std::strerror(EISDIR)));
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    return refused(fmt::format("cannot read {}: {}", path, std::strerror(errno)));
  }
  std::ostringstream text;
  text << file.rdbuf();
  if (file.bad()) {
    return refused(fmt::format("cannot read {}: {}", path, std::strerror(errno)));
  }
  return parse_scenario(text.str());
}

}  // namespace xpon::board_emu
