#include "orvan/support/setting/setting.h"

#include <gtest/gtest.h>

#include <QSettings>
#include <QTemporaryDir>
#include <new>

#include "orvan/support/setting/settings_store.h"

namespace orvan {
namespace {

// As statics of different files do: the place of the group is known before the group is there.
TEST(SettingGroupTest, SettingsMayComeBeforeTheirGroupAndStayAfterIt) {
  alignas(SettingGroup) char place[sizeof(SettingGroup)];
  auto* const group = reinterpret_cast<SettingGroup*>(place);
  const IntSetting early(*group, "early", 1);
  new (place) SettingGroup("G");
  EXPECT_EQ(group->GetSetting("early"), &early);
  group->~SettingGroup();
  new (place) SettingGroup("another at the same address");
  EXPECT_EQ(group->GetSettingCount(), 0) << "what belonged to the first group is none of the second's";
  group->~SettingGroup();
}

TEST(SettingTest, AWriteAlwaysNamesTheWriterAndTellsOfChangesOnly) {
  SettingGroup group("G");
  IntSetting setting(group, "number", 5);
  int changes = 0;
  int second = 0;
  setting.AddObserver([&](Setting&) {
    ++changes;
    setting.RemoveObserver(second);
  });
  second = setting.AddObserver([](Setting&) { ADD_FAILURE() << "the first has just taken it away"; });
  for (const char* writer : {"first", "second"}) {
    Setting::s_current_modifier = writer;
    setting = 6;
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(setting.modifier(), writer) << "also if the value stays";
  }
  Setting::s_current_modifier.clear();
  EXPECT_FALSE(setting.PopSetting());
  setting.PushSetting();
  EXPECT_TRUE(setting.PopSetting());
  EXPECT_EQ(changes, 2) << "restoring tells the observers even if nothing changed";
  setting.PushSetting();
  setting = 7;
  EXPECT_TRUE(setting.PopSetting());
  EXPECT_FALSE(setting.fromString("a, b"));
  EXPECT_EQ(setting.value(), 6);
}

TEST(MapAndLogTest, KeepsTheMostFrequentCodes) {
  SettingGroup group("G");
  MapAndLog map("errors", 3, group, Setting::kStatisticsBehavior);
  for (int code : {404, 500, 404, 503, 410}) map.Log(code);  // in the place of 500, the oldest of the rarest
  EXPECT_EQ(map.toString(), QString("404:2 503:1 410:1"));
  EXPECT_FALSE(map.fromString("404:0"));
  EXPECT_TRUE(map.fromString("1:5 2:1 3:2147483647 4:2 3:1"));
  EXPECT_EQ(map.toString(), QString("1:5 3:2147483647 4:2")) << "bounded in number and in count";
}

TEST(SettingsStoreTest, CarriesChangedSettingsThroughAFile) {
  const QTemporaryDir folder;
  const QString path = folder.filePath("settings.ini");
  SettingGroup group("Http");
  IntSetting number(group, "number", 16), untouched(group, "untouched", 1);
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
  }
  group.ResetToDefault();
  QSettings file(path, QSettings::IniFormat);
  EXPECT_EQ(SettingsStore::Load(file), 3);
  EXPECT_EQ(number.value(), -4);
  EXPECT_EQ(pair.value(), std::make_pair(404, 2));
  EXPECT_EQ(map.toString(), QString("404:1 500:1"));
  EXPECT_EQ(untouched.value(), 1);
}

}  // namespace
}  // namespace orvan
