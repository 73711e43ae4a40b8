// A store of a few spots, for fuzzers of what is asked of it: in a directory that goes when the process ends.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "input.h"
#include "liborvel.h"
#include "store/store.h"

class SmallStore {
  public:
    SmallStore() : folder_((std::filesystem::temp_directory_path() / "fuzz-store-XXXXXX").string()) {
        expect(mkdtemp(folder_.data()) != nullptr);
        Store store(path(), Database::Access::WRITE);
        for (int k = 0; k < 20; k++) {
            Spot spot{};
            spot.receiver = k % 2 == 0 ? "lf" : "mf";
            spot.call = k % 3 == 0 ? "K2QRX" : "DL1QXA";
            spot.protocol = OVL_OPERA;
            spot.start = 1.77e9 + 60 * k;
            spot.end = spot.start + 30.592;
            spot.freq_hz = 1500.25;
            spot.rf_hz = 137500.25;
            spot.snr_db = -20.5;
            store.add({&spot, 1});
        }
        store.add(ReceiverMinute{"lf", 1.77e9, -30, -70, 60, 0, 1, 0});
    }
    SmallStore(const SmallStore&) = delete;
    SmallStore& operator=(const SmallStore&) = delete;
    ~SmallStore() {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    std::string path() const { return folder_ + "/spots.db"; }

  private:
    std::string folder_;
};
