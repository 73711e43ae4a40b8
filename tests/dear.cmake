# Tests that take longest under the address sanitizer and run no code there that others do not: repetitions over many
# scenes, statistics, comparisons of whole decodes. The plain suite runs them all.
foreach(test
        Archives.OfWideBandsAreDividedWithinARecording
        Capture.EqualsDirectConvolutionForEveryRateAndChannelCount
        CoherentSearch.FindingsBelongToTheLastDecode CoherentSearch.FindsTheSameEveryTimeAndWithTwoThreads
        CoherentSearch.KeepsToTheSettingsOfTheDecode CoherentSearch.ReadsClippedAndVeryLoudAndVeryQuietBlocks
        CoherentSearchIsNotFooled.ByFramesOfOtherProtocols CoherentSearchIsNotFooled.ByUnknownStationsWithTheSameKeying
        DeepSearch.TakesAtMostSixtyFourHits DeepSearch.ThinsOutManyPeaksLikeTheDefinition
        EndToEnd.NoMoreThanSixtyFourOfSeventyFramesAreReported EndToEnd.FiveMinutesOfNoiseHoldNoFrame
        EndToEnd.SnrIsWithoutBiasAndTimesWithinFiveMilliseconds
        Faults.NamesOfEveryKindAreOneLineInMessages Faults.NamesOfEveryKindAreTakenAndMakeValidJson
        Faults.NumbersHaveADecimalPointInGermanyToo Faults.TenThousandFilesAreNoTrouble
        FrequencyScan.AHugeSignalHoursAgoDoesNotBlurWhatComesLater
        Overlaps.ApartInFrequencyOrTimeBothRemain
        Passband.SnrIsRightWhereTheSearchIsWiderThanTheFilter
        Pictures.EveryFormatIsWhatItsNameSays Pictures.RecordingsOfIqAndWideBandsAreDrawn
        Run.DriftRangeIsTwoColumnsOverAFrameUnlessGiven Run.EnergyInOffChipsIsAnotherSignal
        Run.EqualsTheModelOnCrowdedScenes
        Run.KnownOnlyAcceptsExactlyTheKnownCallsigns Run.ProtocolsThatWereNotAskedForLeaveNoTrace
        Run.StartsAndEndsOutsideTheWindowAreNotAccepted
        Transmitter.SamplesEqualTheClosedFormOverRandomSequences
        Urls.InShardsAreFetchedOnlyWhereTheyAreDecoded Urls.OfWideBandsAreFetchedOnlyWhereTheyAreDecoded
        WideBand.StepsApartFindToTheBitWhatOnePassDoes WideBand.WeakFramesDecodeAsInANarrowSearch
        WideDecode.FindsTwentyStationsOfThreeProtocolsInAFastRecording WideDecode.InventsNothing)
    set_tests_properties(${test} PROPERTIES LABELS dear)
endforeach()
