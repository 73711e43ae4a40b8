// Owners of the plain records of the receive chain: each is such a record and frees its buffers at the end of its
// scope.
#pragma once

#include "ovbb.h"
#include "ovsync.h"

template <class Record, void (*empty)(Record&)>
struct RecordOwner : Record {
    RecordOwner() : Record{} {}
    RecordOwner(const RecordOwner&) = delete;
    RecordOwner& operator=(const RecordOwner&) = delete;
    ~RecordOwner() { empty(*this); }
};

using SpectrumOwner = RecordOwner<ov_spectrum, ov_spectrum_free>;
using BasebandOwner = RecordOwner<ov_baseband, ov_baseband_free>;
using MapOwner = RecordOwner<ov_specmap, ov_spectrogram_free>;
