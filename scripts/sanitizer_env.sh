# Sourced by scripts/fuzz.sh and scripts/sanitize.sh: how the sanitizers report. Every report
# stops the program, except those of fuzz/sanitizer.supp (third-party code, each with its
# reason).
supp="$(pwd)/fuzz/sanitizer.supp"
export ASAN_OPTIONS="abort_on_error=1:detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1:check_initialization_order=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1:suppressions=$supp"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
