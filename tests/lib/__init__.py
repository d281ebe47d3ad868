"""What tests and scripts share."""
