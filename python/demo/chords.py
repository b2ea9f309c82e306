"""A synthesised chord progression, and which of its chords a chromagram shows."""

from dataclasses import dataclass

import numpy as np

SECONDS = 1.0  # of a chord
HARMONICS = 6
NOTES = ["C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B"]
# MIDI numbers: 60 is C4, 69 is A4.
PROGRESSION = [
    ("C", [48, 55, 64, 72]), ("Am", [45, 57, 64, 72]), ("F", [53, 57, 65, 72]), ("Dm", [50, 57, 65, 74]),
    ("G", [43, 59, 62, 67]), ("Em", [52, 59, 64, 67]), ("A#", [46, 58, 65, 74]), ("C", [48, 60, 64, 67]),
]


@dataclass
class Chord:
    name: str
    classes: set[int]
    start: float  # seconds
    stop: float


def chords(progression=PROGRESSION) -> list[Chord]:
    return [
        Chord(name, {note % 12 for note in notes}, i * SECONDS, (i + 1) * SECONDS)
        for i, (name, notes) in enumerate(progression)
    ]


def synthesise(rate: int, progression=PROGRESSION) -> np.ndarray:
    """(1, samples) float32, each chord struck and decaying, its notes with weaker and weaker harmonics."""
    t = np.arange(round(SECONDS * rate)) / rate
    envelope = np.minimum(1, t / 0.01) * np.exp(-1.5 * t) * np.minimum(1, (SECONDS - t) / 0.02)
    struck = []
    for _, notes in progression:
        hertz = 440 * 2 ** ((np.array(notes)[:, None] - 69) / 12) * np.arange(1, HARMONICS + 1)
        weights = np.broadcast_to(1 / np.arange(1, HARMONICS + 1) ** 2, hertz.shape)
        tones = np.sin(2 * np.pi * hertz[..., None] * t) * weights[..., None]
        struck.append(envelope * tones.sum(axis=(0, 1)) / len(notes))
    return (0.6 * np.concatenate(struck))[None].astype(np.float32)


def leading(chord: Chord, chroma: np.ndarray, frame_rate: float) -> list[int]:
    """As many classes as the chord has, the strongest first, over the frames of its middle; chroma (12, frames)."""
    length = chord.stop - chord.start
    first, last = ((chord.start + share * length) * frame_rate for share in (0.25, 0.75))
    strength = chroma[:, int(np.ceil(first)) : int(last) + 1].mean(axis=1)
    return [int(one) for one in np.argsort(-strength)[: len(chord.classes)]]


def wrong_chords(chroma: np.ndarray, frame_rate: float, progression=PROGRESSION) -> list[str]:
    """The chords of which another class is as strong as one of their own, and the classes that lead there."""
    wrong = []
    for chord in chords(progression):
        found = leading(chord, chroma, frame_rate)
        if set(found) != chord.classes:
            wrong.append(f"{chord.name} at {chord.start:g} s: {', '.join(NOTES[one] for one in found)}")
    return wrong
