#include "state/AppState.h"

#include <glib.h>

#include <algorithm>
#include <utility>

#include "platform/mainloop/Uncaught.h"
#include "state/Persisted.h"
#include "state/StarterList.h"

namespace tamsel {
namespace {

FilterList starterList() {
  return {.id = Starter::id,
          .name = std::string(Starter::name),
          .text = Starter::text,
          .isBuiltIn = true};
}

}  // namespace

AppState::AppState(Platform platform)
    : platform_(std::move(platform)),
      stateFile_(platform_.supportDir),
      compileQueue_(platform_.ruleListStore),
      exportData_(emptyDocument()) {
  Uncaught::setListener([this](const std::string& sentence) { notice = sentence; });
  platform_.browser->setApp(this);
  load();
  rebuild();
  platform_.browser->loadDemo();
}

AppState::~AppState() {
  platform_.browser->setApp(nullptr);
  Uncaught::setListener(nullptr);
}

std::string AppState::userSupportDir() {
  return std::string(g_get_user_data_dir()) + "/Tamsel";
}

void AppState::load() {
  StateFile::Loaded loaded = stateFile_.load();
  if (loaded.state) {
    lists = std::move(loaded.state->lists);
    customRules = std::move(loaded.state->customRules);
    pausedSites = std::set(loaded.state->pausedSites.begin(), loaded.state->pausedSites.end());
  }
  if (!loaded.problem.empty()) notice = loaded.problem;
  const bool hasStarter = std::any_of(
      lists->begin(), lists->end(), [](const FilterList& list) { return list.id == Starter::id; });
  if (!hasStarter) lists.modify([](auto& all) { all.insert(all.begin(), starterList()); });
}

void AppState::save() {
  const std::string problem = stateFile_.save(persisted());
  if (!problem.empty()) {
    notice = "Your changes are not saved. " + problem;
  } else if (isUnsaved_) {
    notice = "";
  }
  isUnsaved_ = !problem.empty();
}

Persisted AppState::persisted() const {
  return {lists, customRules, {pausedSites->begin(), pausedSites->end()}};
}

}  // namespace tamsel
