"""What the system tests stand on: the service's process, its client, and everything around it in scripted form."""
