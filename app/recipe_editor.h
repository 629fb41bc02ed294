#pragma once

#include <optional>
#include <vector>

#include <QDialog>

#include "app/policy_controls.h"
#include "recipes/recipe_store.h"

class QCheckBox;
class QFormLayout;
class QComboBox;
class QDoubleSpinBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QPushButton;
class QSpinBox;
class QWidget;

namespace tarnbloom::app {

// Edits one recipe: its name and its outputs, each with the settings a
// person sets (method and strength, size, format and quality, colour and
// metadata, naming, destination). Save checks the recipe and writes it to
// the library; a refusal stays in the dialog and nothing is written.
class RecipeEditor : public QDialog {
  Q_OBJECT

 public:
  RecipeEditor(recipes::RecipeDraft draft, recipes::RecipeStore library,
               QWidget* parent = nullptr);

  // The recipe as the controls hold it now.
  recipes::RecipeDraft draft();
  // The recipe as saved; none until Save succeeded.
  const std::optional<recipes::RecipeDraft>& saved() const { return m_saved; }
  // Checks and saves; false (with the reason shown) when refused.
  bool save();

 private:
  QWidget* buildOutputForm();
  void showOutput(int index);
  // Writes the form into the output it shows.
  void readOutput();
  void refreshOutputList();
  void refreshVisibility();
  void addOutput();
  void removeOutput();

  recipes::RecipeDraft m_draft;
  recipes::RecipeStore m_library;
  std::optional<recipes::RecipeDraft> m_saved;
  int m_current = -1;
  bool m_loading = false;

  QLineEdit* m_name;
  QListWidget* m_outputs;
  QPushButton* m_remove;
  QWidget* m_form;
  QFormLayout* m_fields;
  QWidget* m_boxRow;
  QWidget* m_qualityRow;
  QComboBox* m_method;
  QDoubleSpinBox* m_strength;
  QComboBox* m_sizeMode;
  QDoubleSpinBox* m_sizeValue;
  QSpinBox* m_boxWidth;
  QSpinBox* m_boxHeight;
  QComboBox* m_format;
  QSpinBox* m_quality;
  QCheckBox* m_lossless;
  PolicyControls m_policy;
  QLineEdit* m_template;
  QComboBox* m_destinationKind;
  QLineEdit* m_destination;
  QPushButton* m_browse;
  QLabel* m_refusal;
};

}  // namespace tarnbloom::app
