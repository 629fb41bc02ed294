#include "app/update_checker.h"

#include <algorithm>
#include <chrono>
#include <span>

#include <QDesktopServices>
#include <QHBoxLayout>
#include <QLabel>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPushButton>
#include <QtDebug>

#include "support/settings.h"
#include "support/update_manifest.h"

namespace tarnbloom::app {

namespace {

constexpr int kTimeoutMs = 15'000;
constexpr std::chrono::hours kRecheckInterval{1};

void saveOrLog(Settings& settings) {
  try {
    settings.save();
  } catch (const Error& error) {
    qWarning("Update check: %s", error.description().c_str());
  }
}

}  // namespace

UpdateChecker::UpdateChecker(QString runningVersion, QObject* parent)
    : QObject(parent), m_running(std::move(runningVersion)), m_network(new QNetworkAccessManager(this)) {
  // Nothing of the user's travels with the request: no cookie jar is
  // consulted, nothing is cached, and an https address never falls back to
  // http on a redirect.
  m_network->setRedirectPolicy(QNetworkRequest::NoLessSafeRedirectPolicy);
  m_timer.setInterval(kRecheckInterval);
  connect(&m_timer, &QTimer::timeout, this, &UpdateChecker::checkIfDue);
}

void UpdateChecker::start() {
  if (!Settings::loadDefault().boolean(kEnabledKey))
    Q_EMIT questionNeeded();
  else
    checkIfDue();
  m_timer.start();
}

void UpdateChecker::setEnabled(bool enabled) {
  Settings settings = Settings::loadDefault();
  settings.set(kEnabledKey, enabled);
  saveOrLog(settings);
  checkIfDue();
}

void UpdateChecker::skipVersion(const QString& version) {
  Settings settings = Settings::loadDefault();
  settings.set(kSkippedVersionKey, version.toStdString());
  saveOrLog(settings);
}

void UpdateChecker::checkIfDue() {
  if (m_reply) return;
  Settings settings = Settings::loadDefault();
  std::optional<WallTime> last;
  if (const auto text = settings.string(kLastCheckKey)) last = parseIso8601(*text);
  if (m_lastAttempt && (!last || *m_lastAttempt > *last)) last = m_lastAttempt;
  const WallTime now = std::chrono::time_point_cast<WallTime::duration>(std::chrono::system_clock::now());
  if (!shouldCheck(now, last, settings.boolean(kEnabledKey))) return;

  // The attempt counts, not its success: an unreachable server is asked
  // once a day like any other.
  m_lastAttempt = now;
  settings.set(kLastCheckKey, formatIso8601(now));
  saveOrLog(settings);

  const QUrl url(QString::fromStdString(settings.string(kManifestURLKey).value_or(kDefaultManifestURL)),
                 QUrl::StrictMode);
  if (!url.isValid() || (url.scheme() != QLatin1String("https") && !url.isLocalFile())) {
    qWarning("Update check: “%s” is not an https address or a local file.", qPrintable(url.toString()));
    Q_EMIT checkFinished();
    return;
  }
  fetch(url);
}

void UpdateChecker::fetch(const QUrl& url) {
  QNetworkRequest request(url);
  request.setTransferTimeout(kTimeoutMs);
  request.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
  request.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
  request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
  request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
  // Qt would otherwise announce the user's language.
  request.setRawHeader("Accept-Language", "*");
  m_reply = m_network->get(request);
  // A server that sends more than a manifest is cut off, not buffered.
  connect(m_reply, &QNetworkReply::downloadProgress, m_reply, [reply = m_reply](qint64 received, qint64) {
    if (received > static_cast<qint64>(UpdateManifest::kMaxBytes)) reply->abort();
  });
  connect(m_reply, &QNetworkReply::finished, this, [this] { finish(m_reply); });
}

void UpdateChecker::finish(QNetworkReply* reply) {
  m_reply = nullptr;
  reply->deleteLater();
  if (reply->error() != QNetworkReply::NoError) {
    qWarning("Update check: %s", qPrintable(reply->errorString()));
    Q_EMIT checkFinished();
    return;
  }
  const QByteArray body = reply->read(static_cast<qint64>(UpdateManifest::kMaxBytes) + 1);
  try {
    const UpdateManifest manifest = UpdateManifest::parse(std::as_bytes(std::span(body.data(), body.size())));
    if (shouldNotify(manifest, m_running.toStdString(), Settings::loadDefault().string(kSkippedVersionKey)))
      Q_EMIT updateAvailable(QString::fromStdString(manifest.version),
                             QUrl(QString::fromStdString(manifest.url), QUrl::StrictMode));
  } catch (const Error& error) {
    qWarning("Update check: %s", error.description().c_str());
  }
  Q_EMIT checkFinished();
}

UpdateBar::UpdateBar(UpdateChecker& checker, QWidget* parent) : QFrame(parent), m_checker(checker) {
  setObjectName(QStringLiteral("updateBar"));
  setAccessibleName(QStringLiteral("Updates"));
  setStyleSheet(QStringLiteral("#updateBar { background: palette(alternate-base); "
                               "border-bottom: 1px solid palette(mid); }"));
  auto* layout = new QHBoxLayout(this);
  layout->setContentsMargins(12, 6, 8, 6);
  m_message = new QLabel;
  m_message->setAccessibleName(QStringLiteral("Update message"));
  m_message->setWordWrap(true);
  layout->addWidget(m_message, 1);
  m_checkDaily = addButton(QStringLiteral("Check Daily"));
  m_dontCheck = addButton(QStringLiteral("Don’t Check"));
  m_releaseNotes = addButton(QStringLiteral("Release Notes"));
  m_skip = addButton(QStringLiteral("Skip This Version"));
  m_close = addButton(QStringLiteral("Close"));
  hide();

  connect(m_checkDaily, &QPushButton::clicked, this, [this] {
    hide();
    m_checker.setEnabled(true);
  });
  connect(m_dontCheck, &QPushButton::clicked, this, [this] {
    hide();
    m_checker.setEnabled(false);
  });
  connect(m_releaseNotes, &QPushButton::clicked, this, [this] { QDesktopServices::openUrl(m_notes); });
  connect(m_skip, &QPushButton::clicked, this, [this] {
    hide();
    m_checker.skipVersion(m_version);
  });
  connect(m_close, &QPushButton::clicked, this, &QWidget::hide);
  connect(&checker, &UpdateChecker::questionNeeded, this, &UpdateBar::showQuestion);
  connect(&checker, &UpdateChecker::updateAvailable, this, &UpdateBar::showNotice);
}

QString UpdateBar::message() const { return m_message->text(); }

QPushButton* UpdateBar::addButton(const QString& text) {
  auto* button = new QPushButton(text);
  button->setAccessibleName(text);
  button->setAutoDefault(false);
  layout()->addWidget(button);
  return button;
}

void UpdateBar::showButtons(std::initializer_list<QPushButton*> visible) {
  for (QPushButton* button : {m_checkDaily, m_dontCheck, m_releaseNotes, m_skip, m_close})
    button->setVisible(std::find(visible.begin(), visible.end(), button) != visible.end());
  show();
}

void UpdateBar::showQuestion() {
  m_message->setText(QStringLiteral("Check for Tarnbloom updates once a day? Only the request for the "
                                    "version file is sent; nothing about you or your photos."));
  showButtons({m_checkDaily, m_dontCheck});
}

void UpdateBar::showNotice(const QString& version, const QUrl& releaseNotes) {
  m_version = version;
  m_notes = releaseNotes;
  m_message->setText(QStringLiteral("Tarnbloom %1 is available.").arg(version));
  showButtons({m_releaseNotes, m_skip, m_close});
}

}  // namespace tarnbloom::app
