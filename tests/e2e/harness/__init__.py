"""What the end-to-end tests stand on: the filter daemon, Wine programs, sync roots and content."""
