# The test programs that are also built for Windows: of the library, and of the rooms of app/.
set(windows_tests ldpc coherent_search liborvel orvel ovcenc ovtx protocol recordings)
set(windows_app_tests spots system)
