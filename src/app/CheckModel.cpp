#include "app/CheckModel.h"

#include <QMetaObject>
#include <QSettings>
#include <algorithm>
#include <cmath>

namespace vellum {
namespace {

QString qText(const std::string& text) {
  return QString::fromStdString(text);
}

// Samples of the speed chart: phases that move data at the card's speed.
bool addsSpeedSample(const CheckProgress& progress) {
  return progress.bytesPerSecond && progress.phase != CheckProgress::Phase::probing &&
         progress.phase != CheckProgress::Phase::restoring;
}

}  // namespace

void ProgressRelay::send(const CheckProgress& progress) const {
  {
    const std::lock_guard lock(batch_->mutex);
    batch_->waiting.push_back(progress);
    if (batch_->waiting.size() > 1) return;  // already on its way
  }
  deliver([batch = batch_](CheckModel& model) {
    std::vector<CheckProgress> arrived;
    {
      const std::lock_guard lock(batch->mutex);
      arrived.swap(batch->waiting);
    }
    model.update(arrived);
  });
}

void ProgressRelay::deliver(std::function<void(CheckModel&)> call) const {
  // Posting under the lock: the model cannot be destroyed meanwhile, and a
  // call still queued when it is destroyed is discarded with it.
  const std::lock_guard lock(link_->mutex);
  CheckModel* model = link_->model;
  if (!model) return;
  QMetaObject::invokeMethod(
      model, [model, call = std::move(call)] { call(*model); }, Qt::QueuedConnection);
}

CheckModel::CheckModel(std::unique_ptr<DiskPlatform> platform, std::optional<bool> simulate,
                       QObject* parent)
    : QObject(parent),
      simulate_(simulate.value_or(QSettings().value("VLSimulateCards", false).toBool())),
      platform_(std::move(platform)),
      session_(std::make_unique<Session>(*platform_)) {
  link_->model = this;
  // One run and the refresh that may overlap its end.
  workers_.setMaxThreadCount(2);
}

CheckModel::~CheckModel() {
  {
    const std::lock_guard lock(link_->mutex);
    link_->model = nullptr;
  }
  cancelFlag_->cancel();
  workers_.waitForDone();
}

int CheckModel::step() const {
  if (std::holds_alternative<Running>(stage_)) return 2;
  if (std::holds_alternative<Result>(stage_)) return 4;
  return selected_ ? 1 : 0;
}

std::optional<Card> CheckModel::stageCard() const {
  if (const auto* running = std::get_if<Running>(&stage_)) return running->card;
  if (const auto* result = std::get_if<Result>(&stage_)) return result->card;
  return selected_;
}

std::optional<Card> CheckModel::listedAgain(const Card& card) const {
  for (const Card& listed : cards_) {
    if (listed == card) return listed;
    const ExternalDisk* disk = listed.disk();
    if (disk && card.disk() && disk->isSameMedium(*card.disk())) return listed;
  }
  return std::nullopt;
}

double CheckModel::elapsedSeconds() const {
  return runClock_.isValid() ? static_cast<double>(runClock_.elapsed()) / 1000.0 : 0.0;
}

QString CheckModel::stepStatus() const {
  const QString noun = qText(std::string(nounFor(stageCard())));
  if (const auto* running = std::get_if<Running>(&stage_)) {
    const QString title = qText(std::string(vellum::title(running->action)));
    if (progress_ && progress_->total > 0 && runProgress_) {
      // The whole run's figure, as the running screen shows it; truncated,
      // so 99.9% never shows as done.
      const auto percent = static_cast<int>(std::floor(100.0 * runProgress_->overall().fraction));
      return title + ": " + QString::number(percent) + "%. Keep the " + noun + " connected.";
    }
    return title + " is starting\u2026";
  }
  if (const auto* result = std::get_if<Result>(&stage_)) {
    return qText(std::string(vellum::title(result->action))) +
           " finished. The verdict and what to do next are below.";
  }
  if (std::holds_alternative<Failed>(stage_)) {
    return "The test couldn't finish. See the message below.";
  }
  if (!selected_) return "Insert a card or drive and choose it below.";
  return "Pick a test. Quick Check is the place to start: about a minute, and it keeps your "
         "files.";
}

void CheckModel::setStage(Stage stage) {
  stage_ = std::move(stage);
  emit stageChanged();
  emit stepChanged();
}

void CheckModel::setProgress(LiveProgress progress) {
  if (progress_ == progress) return;
  progress_ = std::move(progress);
  emit progressChanged();
  emit stepChanged();
}

void CheckModel::setStatusLine(const QString& text) {
  if (statusLine_ == text) return;
  statusLine_ = text;
  emit statusLineChanged();
}

void CheckModel::setIsRefreshing(bool refreshing) {
  if (isRefreshing_ == refreshing) return;
  isRefreshing_ = refreshing;
  emit isRefreshingChanged();
}

void CheckModel::addNotice(const Notice& notice, bool alerting) {
  notices_.push_back(notice);
  emit noticesChanged();
  if (alerting) emit alert(qText(notice.text));
}

void CheckModel::clearNotices() {
  if (notices_.empty()) return;
  notices_.clear();
  emit noticesChanged();
}

void CheckModel::select(const SelectedCard& card) {
  if (selected_ == card) return;
  selected_ = card;
  emit selectedChanged();
  emit stepChanged();
  lookForInterruptedChecks();
}

bool CheckModel::hasInterruptedCheck(const Card& card) const {
  return std::find(interrupted_.begin(), interrupted_.end(), card.id()) != interrupted_.end();
}

void CheckModel::lookForInterruptedChecks() {
  // Journal headers only: a few small files in the user's state folder.
  std::vector<std::string> interrupted;
  for (const Card& card : cards_) {
    if (card.disk() && !session_->interruptedChecks(RunTarget::of(card)).empty()) {
      interrupted.push_back(card.id());
    }
  }
  if (interrupted != interrupted_) {
    interrupted_ = std::move(interrupted);
    emit cardsChanged();  // the list marks them
  }
  const bool needs = selected_ && hasInterruptedCheck(*selected_);
  if (needs != needsRestore_) {
    needsRestore_ = needs;
    emit needsRestoreChanged();
  }
}

void CheckModel::restoreData() {
  if (!selected_ || !needsRestore_ || isRunning() || restoring_) return;
  restoring_ = true;
  clearNotices();
  const ProgressRelay relay(link_);
  workers_.start([session = session_.get(), relay, target = RunTarget::of(*selected_)]() mutable {
    std::vector<Notice> said;
    bool failed = false;
    try {
      RunHooks hooks;
      hooks.notice = [&](const Notice& notice) { said.push_back(notice); };
      for (const Session::Restored& restored : session->restore(target, hooks)) {
        const std::string text = Session::describe(target.name(), restored);
        if (!text.empty()) said.push_back({Notice::Level::info, text});
      }
    } catch (const RunError& error) {
      said.push_back({Notice::Level::warning, error.description()});
      failed = true;
    }
    relay.deliver([said = std::move(said), failed](CheckModel& model) {
      model.restoring_ = false;
      model.lookForInterruptedChecks();
      for (const Notice& notice : said) {
        model.addNotice(notice, failed || notice.level == Notice::Level::warning);
      }
    });
  });
}

void CheckModel::refresh() {
  setIsRefreshing(true);
  const int generation = ++refreshGeneration_;
  const ProgressRelay relay(link_);
  // In demo mode the real disks are deliberately not listed, so there is
  // nothing to ask the system.
  DiskPlatform* platform = simulate_ ? nullptr : platform_.get();
  workers_.start([relay, generation, platform] {
    std::vector<ExternalDisk> disks;
    if (platform) disks = platform->externalDisks(false);
    relay.deliver([generation, disks = std::move(disks)](CheckModel& model) {
      model.applyDiskList(generation, disks);
    });
  });
}

void CheckModel::applyDiskList(int generation, const std::vector<ExternalDisk>& disks) {
  // An older refresh that ended late must not undo a newer one.
  if (generation != refreshGeneration_) return;
  CardList cards;
  if (simulate_) {
    cards = demoCards();
  } else {
    for (const ExternalDisk& disk : disks)
      cards.push_back(Card{disk});
  }
  if (cards != cards_) {
    cards_ = std::move(cards);
    emit cardsChanged();
  }
  setIsRefreshing(false);
  // Disks are equal only in every field: one renamed or formatted since is
  // another card, and is no longer selected.
  if (selected_ && std::find(cards_.begin(), cards_.end(), *selected_) == cards_.end()) {
    select(std::nullopt);
  }
  if (!selected_ && simulate_ && !cards_.empty()) select(cards_.front());
  lookForInterruptedChecks();
}

void CheckModel::run(const Card& card, CheckAction action,
                     std::optional<std::filesystem::path> backupTo,
                     std::optional<FormatChoice> format) {
  // Not while the card's data is being put back.
  if (isRunning() || restoring_) return;
  cancelFlag_ = std::make_shared<CancellationFlag>();
  setProgress(std::nullopt);
  speedHistory_.clear();
  phaseMarks_.clear();
  emit speedHistoryChanged();
  clearNotices();
  runProgress_.emplace(action, backupTo.has_value());
  runClock_.start();
  setStatusLine(card.disk() ? "Waiting for access to the " + qText(std::string(card.noun())) +
                                  ". You may be asked for an administrator password."
                            : QStringLiteral("Starting\u2026"));
  setStage(Running{action, card});
  // Made now, on this thread, so the demo card's device exists before the
  // run needs it.
  if (const auto simulated = card.simulated()) session_->simulatedDevice(*simulated);

  // The save panel has already asked before replacing a file.
  RunRequest request{action, RunTarget::of(card), std::move(backupTo), true, std::move(format)};
  const ProgressRelay relay(link_);
  workers_.start([session = session_.get(), relay, request = std::move(request),
                  cancel = cancelFlag_]() mutable {
    RunHooks hooks;
    hooks.status = [relay](StatusKind, const std::string& text) {
      relay.deliver([line = qText(text)](CheckModel& model) { model.setStatusLine(line); });
    };
    hooks.progress = [relay](const CheckProgress& progress) { relay.send(progress); };
    hooks.notice = [relay](const Notice& notice) {
      relay.deliver([notice](CheckModel& model) {
        model.addNotice(notice, notice.level == Notice::Level::warning);
      });
    };
    const CheckAction ran = request.action;
    try {
      CheckOutcome outcome = session->run(request, *cancel, hooks);
      // The card as the run saw it: the command line's facts filled in.
      relay.deliver([ran, outcome = std::move(outcome), card = *request.target.card](
                        CheckModel& model) { model.finish(ran, outcome, card); });
    } catch (const RunError& error) {
      if (const auto* cancelled = error.as<RunError::Cancelled>()) {
        // The user asked to stop and was told what it leaves: no box, a line
        // on the home screen where it matters.
        const bool wrote = ran == CheckAction::full || ran == CheckAction::wipe;
        const bool worthSaying = ran != CheckAction::health;
        relay.deliver([left = cancelled->whatItLeft, wrote, worthSaying](CheckModel& model) {
          model.backHome();
          if (worthSaying) {
            model.addNotice({wrote ? Notice::Level::warning : Notice::Level::info, left}, false);
          }
        });
      } else {
        relay.deliver(
            [message = qText(error.description())](CheckModel& model) { model.fail(message); });
      }
    } catch (const std::exception& error) {
      // Out of memory and the like: the run ends, the application stays.
      relay.deliver([message = "The " + qText(std::string(vellum::title(ran))) +
                               " stopped unexpectedly (" + qText(error.what()) +
                               "). Try again; if it keeps happening, restart Vellum Check."](
                        CheckModel& model) { model.fail(message); });
    }
  });
}

void CheckModel::update(const std::vector<CheckProgress>& batch) {
  // A late progress of a run that has ended must not bring it back.
  if (!isRunning() || batch.empty()) return;
  const double now = elapsedSeconds();
  bool sampled = false;
  for (const CheckProgress& progress : batch) {
    const auto phaseBefore = runProgress_->phase();
    const int stepBefore = runProgress_->overall().step;
    runProgress_->update(progress, now);
    const bool newStep =
        runProgress_->phase() != phaseBefore || runProgress_->overall().step != stepBefore;
    if (!addsSpeedSample(progress)) continue;
    // The chart marks where each step's samples begin.
    if (newStep || phaseMarks_.empty() || phaseMarks_.back().phase != progress.phase) {
      phaseMarks_.push_back({speedHistory_.size(), progress.phase});
    }
    speedHistory_.append(*progress.bytesPerSecond / 1'000'000.0);
    sampled = true;
  }
  setProgress(batch.back());
  if (!sampled) return;
  if (const qsizetype excess = speedHistory_.size() - kMaxSpeedSamples; excess > 0) {
    speedHistory_.remove(0, excess);
    for (PhaseMark& mark : phaseMarks_)
      mark.sample = std::max<qsizetype>(0, mark.sample - excess);
    // Of marks pushed to the start, the latest one still holds there.
    while (phaseMarks_.size() > 1 && phaseMarks_[1].sample == 0)
      phaseMarks_.erase(phaseMarks_.begin());
  }
  emit speedHistoryChanged();
}

void CheckModel::finish(CheckAction action, CheckOutcome outcome, const Card& card) {
  // The session has recorded a disk this Quick Check proved fake.
  setStage(Result{action, std::move(outcome), QDateTime::currentDateTime(), card});
  setProgress(std::nullopt);
  // Erasing and formatting change the disk's volumes and name.
  refresh();
}

void CheckModel::fail(const QString& message) {
  setStage(Failed{message});
  setProgress(std::nullopt);
  lookForInterruptedChecks();
}

void CheckModel::backHome() {
  setStage(Home{});
  setProgress(std::nullopt);
  refresh();
}

void CheckModel::done() {
  clearNotices();
  setStage(Home{});
  refresh();
}

void CheckModel::autoRunIfRequested() {
  if (!simulate_) return;
  const QSettings settings;
  const std::string card = settings.value("VLAutoCard", "genuine").toString().toStdString();
  if (const auto simulated = simulatedCardFromRawValue(card)) select(Card{*simulated});
  const std::string action = settings.value("VLAutoRun").toString().toStdString();
  // Formatting is never started without the user.
  if (const auto requested = checkActionFromRawValue(action);
      selected_ && requested && *requested != CheckAction::format) {
    run(*selected_, *requested);
  }
}

}  // namespace vellum
