#include "orvan/support/setting/setting.h"

#include <QStringList>
#include <algorithm>
#include <climits>
#include <map>

namespace orvan {

namespace {

// Which settings name which group, by the group's address. An entry without a living group collects the
// settings that were constructed before it; it ends with the group, so that another group which is later
// built at the same address starts without the settings of the first.
//
// Never destroyed: settings that are statics may outlive any static of this file.
class Registry {
 public:
  static Registry& Get() {
    static auto* const registry = new Registry;
    return *registry;
  }

  void AddGroup(SettingGroup* group) {
    SpinLockGuard guard(lock_);
    groups_.push_back(group);
  }
  void RemoveGroup(SettingGroup* group) {
    SpinLockGuard guard(lock_);
    groups_.erase(std::remove(groups_.begin(), groups_.end(), group), groups_.end());
    settings_.erase(group);
  }
  mmvector<SettingGroup*> GetGroups() const {
    SpinLockGuard guard(lock_);
    return groups_;
  }

  void AddSetting(const SettingGroup* group, Setting* setting) {
    SpinLockGuard guard(lock_);
    settings_[group].push_back(setting);
  }
  void RemoveSetting(const SettingGroup* group, Setting* setting) {
    SpinLockGuard guard(lock_);
    const auto it = settings_.find(group);
    if (it == settings_.end()) return;
    Settings& settings = it->second;
    settings.erase(std::remove(settings.begin(), settings.end(), setting), settings.end());
    if (settings.empty()) settings_.erase(it);
  }
  // The settings of `group`, in the order of their construction.
  mmvector<Setting*> GetSettings(const SettingGroup* group) const {
    SpinLockGuard guard(lock_);
    const auto it = settings_.find(group);
    return it == settings_.end() ? Settings() : it->second;
  }
  // True if the group at this address is the one that has taken in the setting, and still exists.
  bool IsGroupOf(SettingGroup* group, const Setting* setting) const {
    SpinLockGuard guard(lock_);
    if (std::find(groups_.begin(), groups_.end(), group) == groups_.end()) return false;
    const auto it = settings_.find(group);
    return it != settings_.end() &&
           std::find(it->second.begin(), it->second.end(), setting) != it->second.end();
  }

 private:
  using Settings = mmvector<Setting*>;

  mutable SpinLock lock_;  // a leaf
  mmvector<SettingGroup*> groups_ ORVAN_GUARDED_BY(lock_);
  std::map<const SettingGroup*, Settings> settings_ ORVAN_GUARDED_BY(lock_);
};

constexpr int kMapAndLogType = 8;

}  // namespace

SettingGroup::SettingGroup(const QString& name) : name_(name) { Registry::Get().AddGroup(this); }

SettingGroup::~SettingGroup() { Registry::Get().RemoveGroup(this); }

QString SettingGroup::GetName() const { return name_; }

int SettingGroup::GetSettingCount() const {
  return static_cast<int>(Registry::Get().GetSettings(this).size());
}

Setting* SettingGroup::GetSetting(int index) const {
  const mmvector<Setting*> settings = Registry::Get().GetSettings(this);
  return index >= 0 && static_cast<std::size_t>(index) < settings.size()
             ? settings[static_cast<std::size_t>(index)]
             : nullptr;
}

Setting* SettingGroup::GetSetting(const QString& name) const {
  for (Setting* setting : Registry::Get().GetSettings(this)) {
    if (setting->name() == name) return setting;
  }
  return nullptr;
}

void SettingGroup::ResetToDefault() {
  // By index: an observer may make or destroy settings of this group.
  for (int i = 0; i < GetSettingCount(); ++i) {
    if (Setting* setting = GetSetting(i)) setting->ResetToDefault();
  }
}

void SettingGroup::OnPreDelete(Setting* setting) { Registry::Get().RemoveSetting(this, setting); }

mmvector<SettingGroup*> SettingGroup::GetGroups() { return Registry::Get().GetGroups(); }

QString Setting::s_current_modifier;

Setting::Setting(SettingGroup& group, const QString& name, Behavior behavior)
    : group_address_(&group), name_(name), behavior_(behavior) {
  Registry::Get().AddSetting(group_address_, this);
}

Setting::~Setting() {
  // Only for a subclass that has not called NotifyPreDelete(): nobody must find the setting any more.
  Registry::Get().RemoveSetting(group_address_, this);
}

int Setting::AddObserver(Observer observer) {
  observers_.emplace_back(next_observer_, std::move(observer));
  return next_observer_++;
}

void Setting::RemoveObserver(int number) {
  const auto has_number = [number](const auto& entry) { return entry.first == number; };
  observers_.erase(std::remove_if(observers_.begin(), observers_.end(), has_number), observers_.end());
}

void Setting::SetPreDeleteObserver(Observer observer) { pre_delete_observer_ = std::move(observer); }

void Setting::NotifyChanged() {
  // Over a copy: an observer may add and remove observers, itself included. One that another took away is
  // not told any more.
  const auto observers = observers_;
  for (const auto& [number, observer] : observers) {
    const auto has_number = [wanted = number](const auto& entry) { return entry.first == wanted; };
    if (std::any_of(observers_.begin(), observers_.end(), has_number)) observer(*this);
  }
}

void Setting::NotifyPreDelete() {
  if (pre_delete_done_) return;
  pre_delete_done_ = true;
  if (pre_delete_observer_) pre_delete_observer_(*this);
  if (Registry::Get().IsGroupOf(group_address_, this)) group_address_->OnPreDelete(this);
}

// A blank between the two, because a comma would make a list of it in an ini file.
QTextStream& operator<<(QTextStream& stream, const std::pair<int, int>& value) {
  return stream << value.first << ' ' << value.second;
}

QTextStream& operator>>(QTextStream& stream, std::pair<int, int>& value) {
  return stream >> value.first >> value.second;
}

MapAndLog::MapAndLog(const QString& name, int size, SettingGroup& group, Behavior behavior)
    : Setting(group, name, behavior), size_(size) {}

MapAndLog::~MapAndLog() { NotifyPreDelete(); }

void MapAndLog::Log(int code) {
  if (size_ <= 0) return;
  CopyModifier();
  {
    SpinLockGuard guard(lock_);
    Add({code, 1}, &entries_);
  }
  NotifyChanged();
}

int MapAndLog::GetCount(int code) const {
  SpinLockGuard guard(lock_);
  for (const Entry& entry : entries_) {
    if (entry.code == code) return entry.count;
  }
  return 0;
}

int MapAndLog::GetCodeCount() const {
  SpinLockGuard guard(lock_);
  return static_cast<int>(entries_.size());
}

bool MapAndLog::fromString(const QString& text) {
  Entries entries;
  for (const QString& word : text.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
    const int colon = word.indexOf(QLatin1Char(':'));
    if (colon < 0) return false;
    bool code_ok = false;
    bool count_ok = false;
    const int code = word.leftRef(colon).toInt(&code_ok);
    const int count = word.midRef(colon + 1).toInt(&count_ok);
    if (!code_ok || !count_ok || count <= 0) return false;
    Add({code, count}, &entries);
  }
  Assign(std::move(entries));
  return true;
}

QString MapAndLog::toString() const {
  SpinLockGuard guard(lock_);
  QStringList words;
  for (const Entry& entry : entries_) words << QStringLiteral("%1:%2").arg(entry.code).arg(entry.count);
  return words.join(QLatin1Char(' '));
}

bool MapAndLog::IsDefault() const { return GetCodeCount() == 0; }

int MapAndLog::getType() const { return kMapAndLogType; }

void MapAndLog::PushSetting() {
  SpinLockGuard guard(lock_);
  stack_.push_back(entries_);
}

bool MapAndLog::PopSetting() {
  {
    SpinLockGuard guard(lock_);
    if (stack_.empty()) return false;
    entries_ = std::move(stack_.back());
    stack_.pop_back();
  }
  NotifyChanged();  // also if nothing changed, as with every setting
  return true;
}

void MapAndLog::ResetToDefault() { Assign(Entries()); }

void MapAndLog::Assign(Entries entries) {
  CopyModifier();
  {
    SpinLockGuard guard(lock_);
    if (entries == entries_) return;
    entries_.swap(entries);
  }
  NotifyChanged();
}

void MapAndLog::Add(const Entry& added, Entries* entries) const {
  for (Entry& entry : *entries) {
    if (entry.code != added.code) continue;
    entry.count = added.count > INT_MAX - entry.count ? INT_MAX : entry.count + added.count;
    return;
  }
  if (size_ <= 0) return;
  if (entries->size() >= static_cast<std::size_t>(size_)) {
    const auto rarer = [](const Entry& a, const Entry& b) { return a.count < b.count; };
    entries->erase(std::min_element(entries->begin(), entries->end(), rarer));  // the first among equals
  }
  entries->push_back(added);
}

}  // namespace orvan
