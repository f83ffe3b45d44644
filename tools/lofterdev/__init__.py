"""What scripts, host roots and tests share: building, roots and how they are entered, tallies, machines, and a host as a test sees it."""
