#pragma once

#include "orvan/support/export.h"

class QSettings;

namespace orvan {

class SettingGroup;

// Carries settings to and from a QSettings object of the application. The library reads and writes no file
// by itself: nothing is loaded or saved unless the application calls this.
//
// Threads: main thread.
class ORVAN_SUPPORT_EXPORT SettingsStore {
 public:
  // Sets each setting that `settings` has a value for, under "<group>/<name>". Values that cannot be read
  // leave their setting alone. Returns how many were set.
  static int Load(QSettings& settings);
  static int Load(QSettings& settings, SettingGroup& group);
  // Writes each setting that differs from its default and removes the others.
  static void Save(QSettings& settings);
  static void Save(QSettings& settings, const SettingGroup& group);
};

}  // namespace orvan
