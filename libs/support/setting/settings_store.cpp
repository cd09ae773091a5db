#include "orvan/support/setting/settings_store.h"

#include <QSettings>

#include "orvan/support/setting/setting.h"

namespace orvan {

namespace {

QString KeyOf(const SettingGroup& group, const Setting& setting) {
  return group.GetName() + QLatin1Char('/') + setting.name();
}

}  // namespace

int SettingsStore::Load(QSettings& settings) {
  int loaded = 0;
  for (SettingGroup* group : SettingGroup::GetGroups()) loaded += Load(settings, *group);
  return loaded;
}

int SettingsStore::Load(QSettings& settings, SettingGroup& group) {
  int loaded = 0;
  for (int i = 0; i < group.GetSettingCount(); ++i) {
    Setting* setting = group.GetSetting(i);
    const QString key = KeyOf(group, *setting);
    if (settings.contains(key) && setting->fromString(settings.value(key).toString())) ++loaded;
  }
  return loaded;
}

void SettingsStore::Save(QSettings& settings) {
  for (const SettingGroup* group : SettingGroup::GetGroups()) Save(settings, *group);
}

void SettingsStore::Save(QSettings& settings, const SettingGroup& group) {
  for (int i = 0; i < group.GetSettingCount(); ++i) {
    const Setting* setting = group.GetSetting(i);
    const QString key = KeyOf(group, *setting);
    if (setting->IsDefault()) {
      settings.remove(key);
    } else {
      settings.setValue(key, setting->toString());
    }
  }
}

}  // namespace orvan
