// The platform model grows here: profiles, configuration space, on-chip registers.
