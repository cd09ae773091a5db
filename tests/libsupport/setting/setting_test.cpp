#include "orvan/support/setting/setting.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <memory>
#include <new>

#include "orvan/support/setting/settings_store.h"

namespace orvan {
namespace {

struct LoggingGroup : SettingGroup {
  explicit LoggingGroup(const QString& name) : SettingGroup(name) {}
  void OnPreDelete(Setting* setting) override {
    gone << setting->name();
    SettingGroup::OnPreDelete(setting);
  }
  inline static QStringList gone;
};

// As statics of different files do: the place of the group is known before the group is there.
TEST(SettingGroupTest, SettingsMayComeBeforeTheirGroupAndStayAfterIt) {
  LoggingGroup::gone.clear();
  alignas(LoggingGroup) char place[sizeof(LoggingGroup)];
  auto* const group = reinterpret_cast<LoggingGroup*>(place);
  auto early = std::make_unique<IntSetting>(*group, "early", 1);
  auto dropped = std::make_unique<IntSetting>(*group, "dropped", 1);
  dropped.reset();  // no group to tell yet

  new (place) LoggingGroup("G");
  auto late = std::make_unique<IntSetting>(*group, "late", 2);
  EXPECT_EQ(group->GetSettingCount(), 2);
  EXPECT_EQ(group->GetSetting(0), early.get());
  EXPECT_EQ(group->GetSetting("late"), late.get());
  early.reset();
  EXPECT_EQ(LoggingGroup::gone, QStringList{"early"});
  EXPECT_EQ(group->GetSettingCount(), 1);

  group->~LoggingGroup();
  new (place) LoggingGroup("another at the same address");
  EXPECT_EQ(group->GetSettingCount(), 0) << "what belonged to the first group is none of the second's";
  late.reset();
  EXPECT_EQ(LoggingGroup::gone, QStringList{"early"}) << "the group of `late` has gone";
  group->~LoggingGroup();
}

TEST(SettingTest, AWriteAlwaysNamesTheWriterAndTellsOfChangesOnly) {
  SettingGroup group("G");
  IntSetting setting(group, "number", 5);
  int changes = 0;
  const int observer = setting.AddObserver([&](Setting&) { ++changes; });
  for (const char* writer : {"first", "second"}) {
    Setting::s_current_modifier = writer;
    setting = 6;
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(setting.modifier(), writer) << "also if the value stays";
  }
  EXPECT_FALSE(setting.PopSetting());
  setting.PushSetting();
  EXPECT_TRUE(setting.PopSetting());
  EXPECT_EQ(changes, 2) << "restoring tells the observers even if nothing changed";
  setting.PushSetting();
  setting = 7;
  EXPECT_TRUE(setting.PopSetting());
  EXPECT_EQ(setting.value(), 6);

  changes = 0;
  group.ResetToDefault();
  group.ResetToDefault();
  EXPECT_EQ(changes, 1);
  setting.RemoveObserver(observer);
  setting = 8;
  EXPECT_EQ(changes, 1);
  Setting::s_current_modifier.clear();
}

TEST(MapAndLogTest, KeepsTheMostFrequentCodes) {
  SettingGroup group("G");
  MapAndLog map("errors", 3, group, Setting::kStatisticsBehavior);
  for (int code : {404, 500, 404, 503, 410}) map.Log(code);  // in the place of 500, the oldest of the rarest
  EXPECT_EQ(map.toString(), QString("404:2 503:1 410:1"));
  for (const char* refused : {"404", "404:x", "x:1", "404:0", "404:1 :", "404:99999999999"}) {
    EXPECT_FALSE(map.fromString(refused)) << refused;
  }
  EXPECT_TRUE(map.fromString("1:5 2:1 3:2147483647 4:2 3:1"));
  EXPECT_EQ(map.toString(), QString("1:5 3:2147483647 4:2")) << "bounded in number and in count";
}

TEST(SettingsStoreTest, CarriesChangedSettingsThroughAFile) {
  const QTemporaryDir folder;
  const QString path = folder.filePath("settings.ini");
  SettingGroup group("Http");
  IntSetting number(group, "number", 16), untouched(group, "untouched", 1), broken(group, "broken", 3);
  IntPairSetting pair(group, "pair", {0, 0});
  MapAndLog map("map", 20, group, Setting::kStatisticsBehavior);
  {
    QSettings file(path, QSettings::IniFormat);
    file.setValue("Http/untouched", "9");  // back at its default, hence removed
    number = -4;
    pair = std::make_pair(404, 2);
    map.Log(404);
    map.Log(500);
    SettingsStore::Save(file);
    EXPECT_FALSE(file.contains("Http/untouched"));
    file.setValue("Http/broken", "a, b");
  }
  group.ResetToDefault();
  QSettings file(path, QSettings::IniFormat);
  EXPECT_EQ(SettingsStore::Load(file), 3);
  EXPECT_EQ(number.value(), -4);
  EXPECT_EQ(pair.value(), std::make_pair(404, 2));
  EXPECT_EQ(map.toString(), QString("404:1 500:1"));
  EXPECT_EQ(untouched.value(), 1);
  EXPECT_EQ(broken.value(), 3);
}

}  // namespace
}  // namespace orvan
