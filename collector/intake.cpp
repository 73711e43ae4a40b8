#include "intake.h"

#include <algorithm>
#include <utility>

#include "mqtt/mqtt_client.h"

void Intake::own(const std::string& station, const std::vector<Mark>& marks) {
    std::vector<Epoch>& epochs = stations_[station];
    epochs.clear();
    const std::size_t first = marks.size() - std::min(marks.size(), MOST_EPOCHS);
    for (std::size_t k = first; k < marks.size(); k++) {
        epochs.push_back({marks[k]});
        epochs.back().mark.again = ++again_;
    }
}

void Intake::disown(const std::string& station) {
    stations_.erase(station);
    std::erase_if(touched_, [&](const auto& touched) { return touched.first == station; });
}

Intake::Epoch& Intake::epoch_of(const std::string& station, const std::string& epoch) {
    std::vector<Epoch>& epochs = stations_.at(station);
    const auto found = std::ranges::find(epochs, epoch, [](const Epoch& one) { return one.mark.epoch; });
    if (found != epochs.end()) {
        std::rotate(found, found + 1, epochs.end());
    } else {
        if (epochs.size() == MOST_EPOCHS) epochs.erase(epochs.begin());
        epochs.push_back({{.epoch = epoch, .number = 0, .id = "", .again = ++again_}});
    }
    return epochs.back();
}

// What is there twice moves nothing; the station may not know, and is told.
void Intake::move(const std::string& station, const Place& place, const std::string& id, double now) {
    Epoch& epoch = epoch_of(station, place.epoch);
    if (place.after <= epoch.mark.number) {
        if (place.number > epoch.mark.number) {
            epoch.mark.number = place.number;
            epoch.mark.id = id;
        }
    } else if (now >= epoch.asked_at + AGAIN_EVERY_S) {
        epoch.mark.again = ++again_;
        epoch.asked_at = now;
    }
    touched_.insert({station, place.epoch});
}

bool Intake::take(const std::string& station, SpotMessage message, double now) {
    if (!owns(station)) return true;
    if (is_empty()) since_ = now;
    if (message.spot && topic_word(message.spot->station) != station) message.spot.reset();
    if (message.place) move(station, *message.place, message.spot ? message.spot->id : "", now);
    if (!message.spot) return false;
    spots_.push_back(std::move(*message.spot));
    return true;
}

std::vector<StationMark> Intake::touched() const {
    std::vector<StationMark> marks;
    for (const auto& [station, epochs] : stations_) {
        for (const Epoch& epoch : epochs) {
            if (touched_.contains({station, epoch.mark.epoch})) marks.push_back({station, epoch.mark});
        }
    }
    return marks;
}

void Intake::stored() {
    spots_.clear();
    touched_.clear();
}

std::optional<Mark> Intake::latest(const std::string& station) const {
    const auto found = stations_.find(station);
    if (found == stations_.end() || found->second.empty()) return std::nullopt;
    return found->second.back().mark;
}
