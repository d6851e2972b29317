# Read by ctest after the test cases have been discovered: the cases that stream at the bus
# ceiling run alone, so that no other test takes the CPU the emulated USB path needs.
set_tests_properties(FrameTest.FullLoadOnBothChannelsLosesNothing ExtTest.CountersAndReadinessFollowTheTraffic
                     PROPERTIES RUN_SERIAL TRUE)
