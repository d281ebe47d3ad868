"""The parts of scripts/bench, which measures the running daemon and other cron daemons."""
