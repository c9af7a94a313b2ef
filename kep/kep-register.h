// Motion correction of the listed volumes (command `register`).
#pragma once

// Realigns every listed volume to the first listed volume of its stack, in
// place: a rigid body (three translations in mm, three rotations in degrees
// about the volume's centre, world axes) or, with registration-type
// "deck-of-cards", each slice in its own plane. Prints one line per volume,
// leaves the last estimate in registration-translations and -rotations, and
// writes the parameters of every volume to the table file "<stack>.motion".
int register_volume();
