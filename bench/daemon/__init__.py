"""What scripts/bench is made of: the running daemon measured beside other cron daemons."""
