#pragma once

#include <optional>

#include <QFrame>
#include <QObject>
#include <QTimer>
#include <QUrl>

#include "support/iso_time.h"

class QLabel;
class QNetworkAccessManager;
class QNetworkReply;
class QPushButton;

namespace tarnbloom::app {

// Looks for a newer Tarnbloom once the user has agreed: at most once a day,
// a single GET of the version file at "updates.manifestURL" (https, or a
// local file), with no cookies and nothing about the user. Failures are
// logged and otherwise ignored; a check never interrupts anyone.
class UpdateChecker : public QObject {
  Q_OBJECT

 public:
  static constexpr const char* kEnabledKey = "updates.enabled";
  static constexpr const char* kLastCheckKey = "updates.lastCheck";
  static constexpr const char* kSkippedVersionKey = "updates.skippedVersion";
  static constexpr const char* kManifestURLKey = "updates.manifestURL";
  static constexpr const char* kDefaultManifestURL = "https://tarnbloom.example/updates/manifest.json";

  explicit UpdateChecker(QString runningVersion, QObject* parent = nullptr);

  // Asks (questionNeeded) when the user has never answered, otherwise checks
  // if due; while the app runs it looks again every hour whether a day has
  // passed.
  void start();
  // The user's answer; agreeing checks at once.
  void setEnabled(bool enabled);
  void skipVersion(const QString& version);

 Q_SIGNALS:
  void questionNeeded();
  void updateAvailable(const QString& version, const QUrl& releaseNotes);
  // Every check that ended, with a notice or without (tests wait on it).
  void checkFinished();

 private:
  void checkIfDue();
  void fetch(const QUrl& url);
  void finish(QNetworkReply* reply);

  QString m_running;
  QNetworkAccessManager* m_network;
  QTimer m_timer;
  QNetworkReply* m_reply = nullptr;
  // When the settings cannot be saved, this still keeps checks daily.
  std::optional<WallTime> m_lastAttempt;
};

// A bar above the photos that asks once, then shows notices. Not a dialog:
// it waits for the user instead of standing between them and their work.
class UpdateBar : public QFrame {
  Q_OBJECT

 public:
  explicit UpdateBar(UpdateChecker& checker, QWidget* parent = nullptr);

  QString message() const;

 private:
  void showQuestion();
  void showNotice(const QString& version, const QUrl& releaseNotes);
  QPushButton* addButton(const QString& text);
  void showButtons(std::initializer_list<QPushButton*> visible);

  UpdateChecker& m_checker;
  QLabel* m_message;
  QPushButton* m_checkDaily;
  QPushButton* m_dontCheck;
  QPushButton* m_releaseNotes;
  QPushButton* m_skip;
  QPushButton* m_close;
  QString m_version;
  QUrl m_notes;
};

}  // namespace tarnbloom::app
