#pragma once

#include <QDialog>
#include <array>
#include <filesystem>
#include <functional>

#include "app/policy_controls.h"
#include "export/export_options.h"

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QSlider;
class QSpinBox;

namespace tarnbloom::app {

// The settings of the file manager's three Enlarge entries: how each
// exports, where folder runs go, and whether they take subfolders. Every
// change is saved and published at once, as a desktop settings page does;
// there is nothing to apply.
class MenuSettingsDialog : public QDialog {
  Q_OBJECT

 public:
  // `currentOptions`: the window's export options now, for "Use Current
  // Settings". `commandLineTool`: what the file manager entries run.
  MenuSettingsDialog(std::function<exporting::ExportOptions()> currentOptions,
                     std::filesystem::path commandLineTool, QWidget* parent = nullptr);

 private:
  struct Page {
    int scale = 2;
    QLabel* origin = nullptr;
    QComboBox* method = nullptr;
    QSlider* strength = nullptr;
    QComboBox* format = nullptr;
    QSpinBox* quality = nullptr;
    PolicyControls policy;
    QCheckBox* subfolders = nullptr;
    QLineEdit* destination = nullptr;
    QPushButton* follow = nullptr;
  };

  QWidget* buildPage(Page& page);
  QWidget* buildEntriesFooter();
  // Shows what the store holds for the page's entry.
  void showEntry(Page& page);
  // Saves the page's controls as the entry's own options.
  void saveOptions(Page& page);
  void publish();

  std::function<exporting::ExportOptions()> m_currentOptions;
  std::filesystem::path m_tool;
  std::array<Page, 3> m_pages;
  QLabel* m_status = nullptr;
  bool m_showing = false;
};

}  // namespace tarnbloom::app
