// Gives the precompiled headers of the tests a target to belong to.
