#!/usr/bin/env python3
"""Generates the "many rules" benchmark workload: bench/many_rules/config.json and queries.txt.

The shape is the one authors get when they write rules from annotated training utterances:
each utterance becomes one literal-heavy POSIX extended rule with every slot replaced by its
<vocabulary> marker, now and then with an optional part or an alternation. About 7 intents of
1,000+ rules each (about 7,500 rules, ~68 UTF-16 units on average), ~12 k words in 15
vocabularies and 28 regex vocabulary patterns (dates, times, numbers, durations, ratings) built
with a few ${variables}. The queries are made from the same utterances with the markers filled
in (most answer an intent), plus chatter that answers none.

Standard library only, fixed seed: the same files every run.

    python3 bench/make_many_rules.py [--out DIR]   # default: bench/many_rules next to this file
"""

import argparse
import json
import os
import random
import re
import sys

SEED = 7103
RULES_PER_INTENT = (1020, 1130)  # inclusive range; drawn per intent
QUERY_COUNT = 2000
UNKNOWN_SHARE = 0.15

rng = random.Random(SEED)

# ---------------------------------------------------------------------------------------------
# Vocabularies

ONSETS = ["b", "br", "c", "ch", "d", "dr", "f", "g", "gr", "h", "j", "k", "l", "m", "n", "p",
          "pr", "r", "s", "sh", "st", "t", "tr", "v", "w", "z", "", "", ""]
VOWELS = ["a", "e", "i", "o", "u", "a", "e", "o", "ai", "ou", "ea", "é", "ö"]
CODAS = ["", "", "", "n", "r", "l", "s", "m", "nd", "rt", "x", "k"]


def syllables(n):
    return "".join(rng.choice(ONSETS) + rng.choice(VOWELS) + rng.choice(CODAS) for _ in range(n))


def name_word(lo=2, hi=3):
    w = syllables(rng.randint(lo, hi))
    return w[:1].upper() + w[1:]


TITLE_WORDS = ("love night light heart fire dream river road summer winter shadow golden "
               "silver blue red wild lost last first little city ocean rain storm moon sun "
               "star dance song story letter garden window mirror paper glass stone echo "
               "midnight morning yesterday forever home train highway island secret silent "
               "broken sweet bitter electric velvet crystal neon desert mountain harbor").split()


def title(lo=2, hi=4):
    words = [rng.choice(TITLE_WORDS) for _ in range(rng.randint(lo, hi))]
    if rng.random() < 0.35:
        words.insert(rng.randrange(len(words) + 1), syllables(2))
    if rng.random() < 0.4:
        words.insert(0, rng.choice(["The", "A", "My", "Our"]))
    return " ".join(w[:1].upper() + w[1:] for w in words)


def unique(make, count):
    seen, out = set(), []
    while len(out) < count:
        w = make()
        if w not in seen:
            seen.add(w)
            out.append(w)
    return out


def restaurant():
    shape = rng.random()
    if shape < 0.3:
        return f"{name_word()} {rng.choice(['Bistro', 'Grill', 'Kitchen', 'House', 'Diner', 'Café', 'Tavern', 'Brasserie'])}"
    if shape < 0.55:
        return f"The {rng.choice(TITLE_WORDS).title()} {rng.choice(['Spoon', 'Fork', 'Table', 'Oven', 'Pot', 'Plate', 'Lantern'])}"
    if shape < 0.75:
        return f"{rng.choice(['Trattoria', 'Osteria', 'Casa', 'Chez', 'Taverna', 'Maison'])} {name_word()}"
    return name_word(2, 4)


def city():
    shape = rng.random()
    if shape < 0.15:
        return f"{rng.choice(['San', 'New', 'Port', 'Lake', 'Fort', 'Saint', 'East', 'West'])} {name_word()}"
    if shape < 0.25:
        return f"{name_word()} {rng.choice(['Falls', 'Springs', 'Harbor', 'Heights', 'Valley'])}"
    return name_word(2, 4)


def person():
    return f"{name_word(1, 3)} {name_word(2, 3)}"


def artist():
    shape = rng.random()
    if shape < 0.55:
        return person()
    if shape < 0.8:
        return f"The {name_word()} {rng.choice(['Band', 'Brothers', 'Sisters', 'Collective', 'Trio', 'Orchestra', 'Project'])}"
    return name_word(2, 4)


def playlist():
    return f"{rng.choice(['My', 'Chill', 'Late Night', 'Morning', 'Workout', 'Road Trip', 'Rainy Day', 'Party', 'Focus', 'Sunday'])} {rng.choice(TITLE_WORDS).title()} {rng.choice(['Mix', 'Mixtape', 'Jams', 'Hits', 'Vibes', 'Tunes', 'Classics', 'Radio', ''])}".strip()


def cinema():
    return f"{rng.choice(['Odeon', 'Rex', 'Palace', 'Lux', 'Grand', 'Royal', 'Star', 'Plaza', 'Roxy'])} {name_word()}" + rng.choice(["", " Cinema", " Theater", " Multiplex"])


CUISINES = ("italian french chinese japanese thai indian mexican greek spanish korean "
            "vietnamese lebanese turkish moroccan ethiopian peruvian brazilian german "
            "british irish polish hungarian russian georgian persian afghan nepalese "
            "indonesian malaysian filipino cuban jamaican argentinian portuguese swedish "
            "danish norwegian scottish cajun creole tex-mex vegan vegetarian seafood "
            "barbecue sushi ramen tapas pizza burger steakhouse fusion "
            "mediterranean caribbean hawaiian syrian israeli egyptian "
            "tunisian senegalese nigerian basque catalan sicilian neapolitan").split()
CUISINES = sorted(set(CUISINES) | {"dim sum", "middle eastern"})
GENRES = ("jazz blues soul funk disco techno house trance dubstep ambient classical baroque "
          "opera country bluegrass folk indie punk metal grunge grime reggae ska dancehall "
          "salsa tango flamenco samba afrobeat highlife k-pop j-pop rock synthwave lo-fi "
          "trap drill gospel motown swing bebop fusion krautrock shoegaze emo hardcore "
          "garage britpop chillwave vaporwave downtempo jungle breakbeat electro idm "
          "minimal zydeco klezmer rockabilly doo-wop post-punk industrial").split()
GENRES = sorted(set(GENRES) | {"bossa nova", "city pop", "hip hop", "trip hop",
                                "drum and bass", "acid jazz", "surf rock", "new wave"})
WEATHER = ["rain", "snow", "sunny", "cloudy", "windy", "foggy", "stormy", "humid", "hail",
           "sleet", "drizzle", "thunderstorms", "heatwave", "frost", "showers", "overcast",
           "blizzard", "hot", "cold", "chilly", "freezing", "warm", "muggy", "breezy",
           "clear skies", "sunshine", "a storm", "a hurricane", "a tornado", "smog",
           "heavy rain", "light rain", "scattered showers", "black ice", "mist", "gusts",
           "a cold front", "a warm front", "pollen", "uv index"]
APPS = ["Tunebox", "Melodia", "Soundwell", "Beatcast", "Orbit Music", "Waveline", "Chatterly",
        "Pingo", "Signalry", "Relay", "Quickchat", "Hearth", "Mailbird Pro", "Textwave",
        "Loop Radio", "Airtunes", "Vinylhub", "Streamly", "Chorus", "Talkspace", "Murmur",
        "Echo Box", "Podlane", "Skylark", "Parrot", "Dispatch", "Notewire", "Buzzline",
        "Harmonix Go", "Riffle", "Jukelane", "Cadence", "Fanfare", "Postbox", "Courier",
        "Whisper", "Sonar", "Tempo", "Lyra", "Kazoo"]
REGIONS = unique(lambda: name_word(2, 4) + rng.choice(["", "", " Province", " County", " State", " Region"]), 120)


def build_vocab():
    v = {
        "restaurant": unique(restaurant, 1800),
        "cuisine": CUISINES,
        "city": unique(city, 2000),
        "region": REGIONS,
        "weather_condition": WEATHER,
        "artist": unique(artist, 1700),
        "song": unique(lambda: title(2, 4), 1800),
        "album": unique(lambda: title(2, 3), 800),
        "genre": GENRES,
        "playlist": unique(playlist, 450),
        "app": APPS,
        "book": unique(lambda: title(2, 5), 900),
        "movie": unique(lambda: title(2, 4), 1100),
        "cinema": unique(cinema, 250),
        "contact": unique(lambda: name_word(1, 3) if rng.random() < 0.6 else person(), 700),
    }
    return v


# ---------------------------------------------------------------------------------------------
# Regex vocabularies (ECMAScript), with ${variables}

VARIABLES = [
    ("d", "[0-9]"),
    ("day", "(0?[1-9]|[12]${d}|3[01])"),
    ("month", "(0?[1-9]|1[0-2])"),
    ("year", "(19|20)${d}{2}"),
    ("hour12", "(1[0-2]|0?[1-9])"),
    ("hour24", "([01]?${d}|2[0-3])"),
    ("minute", "[0-5]${d}"),
    ("ampm", "(am|pm|a\\.m\\.|p\\.m\\.)"),
    ("monthname", "(january|february|march|april|may|june|july|august|september|october|november|december)"),
    ("weekday", "(monday|tuesday|wednesday|thursday|friday|saturday|sunday)"),
    ("th", "(st|nd|rd|th)"),
    ("small", "(one|two|three|four|five|six|seven|eight|nine|ten|eleven|twelve)"),
]

REGEX_VOCAB = {
    "date": [
        "\\b${day}/${month}/${year}\\b",
        "\\b${year}-${month}-${day}\\b",
        "\\b${monthname} ${day}${th}?\\b",
        "\\bthe ${day}${th} of ${monthname}\\b",
        "\\b(today|tomorrow|tonight)\\b",
        "\\b(next|this) ${weekday}\\b",
        "\\bon ${weekday}s\\b",
        "\\bthe day after tomorrow\\b",
        "\\bin ${d}+ days\\b",
    ],
    "time": [
        "\\b${hour12}(:${minute})? ?${ampm}",
        "\\b${hour24}:${minute}\\b",
        "\\b(noon|midnight)\\b",
        "\\bhalf past ${hour12}\\b",
        "\\bquarter (past|to) ${hour12}\\b",
        "\\b(this |in the )(morning|afternoon|evening)\\b",
    ],
    "number": [
        "\\b${d}+\\b",
        "\\b${small}\\b",
        "\\ba (couple|few|dozen)\\b",
        "\\b${d}+\\.${d}+\\b",
    ],
    "duration": [
        "\\b${d}+ ?(minutes?|mins?|hours?|hrs?)\\b",
        "\\b${small} (minutes?|hours?)\\b",
        "\\b(half an hour|an hour|a minute)\\b",
        "\\ba (quarter|half) of an hour\\b",
    ],
    "rating": [
        "\\b[0-5] stars?\\b",
        "\\b(zero|one|two|three|four|five) stars?\\b",
        "\\b[0-9]{1,2} (out of|of) (5|10)\\b",
        "\\b(full marks|no stars)\\b",
        "\\b[0-5](\\.5)? points\\b",
    ],
}

# Sample texts that the regex vocabularies tag whole (used to fill markers in queries).
REGEX_SAMPLES = {
    "date": ["today", "tomorrow", "tonight", "next friday", "this saturday", "next monday",
             "this sunday", "march 3rd", "june 21", "october 5th", "the 5th of june",
             "the 12th of may", "the day after tomorrow", "in 3 days",
             "12/05/2025", "2025-01-17", "next wednesday", "december 24th"],
    "time": ["7pm", "7:30 pm", "8 am", "19:30", "noon", "midnight", "half past 8",
             "quarter to 9", "this evening", "in the morning", "6:45pm", "11 a.m.", "12:15"],
    "number": ["2", "4", "six", "two", "12", "three", "a couple", "five", "8", "ten"],
    "duration": ["20 minutes", "2 hours", "half an hour", "an hour", "ten minutes", "45 mins",
                 "a quarter of an hour", "three hours"],
    "rating": ["4 stars", "five stars", "3 out of 5", "8 of 10", "two stars", "1 star",
               "full marks", "4.5 points", "no stars"],
}

# ---------------------------------------------------------------------------------------------
# Intents: utterance templates. {tag} is a slot; the rest is literal text.

PREFIXES = ["", "", "", "please ", "can you ", "could you ", "could you please ", "i want to ",
            "i'd like to ", "i would like to ", "hey, ", "help me ", "would you ",
            "go ahead and ", "i need you to ", "quickly ", "can i ", "let's "]
# Questions take no imperative lead-in.
QUESTION_PREFIXES = ["", "", "", "hey, ", "tell me ", "can you tell me ", "do you know ",
                     "i wonder ", "quick question, ", "ok so "]
QUESTION_START = re.compile(r"(what|what's|when|where|which|who|how|is|will|should|do|any)\b")
SUFFIXES = ["", "", "", " please", " for me", " thanks", " now", " right away",
            " if you can", " thank you", " asap", " when you get a chance"]

INTENTS = {
    "book_restaurant": {
        "name": "Book a table at a restaurant",
        "slots": ["restaurant", "cuisine", "city", "number", "date", "time"],
        "cores": [
            "book a table at {restaurant}",
            "book a table for {number} at {restaurant}",
            "reserve a table at {restaurant}",
            "reserve a table for {number} people",
            "make a reservation at {restaurant}",
            "make a dinner reservation for {number}",
            "get us a table at {restaurant}",
            "find a {cuisine} restaurant in {city} and book it",
            "book a {cuisine} place for {number} people",
            "reserve something {cuisine} in {city}",
            "book dinner at {restaurant} in {city}",
            "find me a table for {number} at a {cuisine} restaurant",
            "i need a table for {number} at {restaurant}",
            "get a reservation for {number} at a {cuisine} spot",
            "book lunch for {number} at {restaurant}",
            "reserve a table at a {cuisine} restaurant near {city}",
            "book the restaurant {restaurant}",
            "set up a dinner for {number} at {restaurant}",
            "table for {number} at {restaurant}",
            "book brunch at {restaurant}",
            "hold a table at {restaurant} for {number} guests",
            "we want to eat {cuisine} food in {city}, book a table",
            "reserve seats for {number} at {restaurant}",
            "find a good {cuisine} restaurant and reserve a table",
        ],
        "modifiers": [" on {date}", " at {time}", " {date} at {time}", " {date}",
                      " for {number} people", " in {city}", " around {time}",
                      " for {date} at {time}", " near {city}", " for {number}"],
        "synonyms": {"table": ["table", "spot"], "people": ["people", "persons", "guests"],
                     "book": ["book", "reserve"], "restaurant": ["restaurant", "place"],
                     "dinner": ["dinner", "supper"]},
    },
    "get_weather": {
        "name": "Weather forecast",
        "slots": ["city", "region", "date", "time", "weather_condition"],
        "cores": [
            "what's the weather in {city}",
            "what is the weather like in {city}",
            "will it be {weather_condition} in {city}",
            "is there going to be {weather_condition} in {region}",
            "tell me the forecast for {city}",
            "give me the weather forecast for {region}",
            "how is the weather in {city}",
            "should i expect {weather_condition} in {city}",
            "is it going to be {weather_condition}",
            "what's the forecast",
            "check the weather in {city}, {region}",
            "do i need an umbrella in {city}",
            "how hot will it get in {city}",
            "what temperature is it in {city}",
            "will there be {weather_condition} near {city}",
            "forecast for {region}",
            "weather report for {city}",
            "how cold is it going to be in {region}",
            "any chance of {weather_condition} in {city}",
            "is it {weather_condition} in {city} right now",
            "show me the weather in {city}",
            "what will the weather be like",
        ],
        "modifiers": [" on {date}", " {date}", " at {time}", " {date} at {time}",
                      " in {region}", " {date} {time}", " for {date}", " around {time}",
                      " by {time}", " later {date}"],
        "synonyms": {"weather": ["weather", "forecast"], "tell": ["tell", "give"],
                     "show": ["show", "tell"], "going to": ["going to", "gonna"]},
    },
    "play_music": {
        "name": "Play music",
        "slots": ["artist", "song", "album", "genre", "playlist", "app"],
        "cores": [
            "play {song} by {artist}",
            "play {song}",
            "play some {genre}",
            "play something by {artist}",
            "play the album {album}",
            "play {album} by {artist}",
            "put on {song}",
            "put on some {genre} music",
            "play my {playlist} playlist",
            "start the playlist {playlist}",
            "i want to hear {song} by {artist}",
            "listen to {artist}",
            "play music by {artist}",
            "shuffle {playlist}",
            "play the latest {artist} album",
            "play some {genre} from {artist}",
            "play the song {song}",
            "queue up {album}",
            "play {genre} radio",
            "play the best of {artist}",
            "let me listen to {song}",
            "start playing {album} by {artist}",
            "play a {genre} song",
        ],
        "modifiers": [" on {app}", " using {app}", " from {app}", " in {app}", " on shuffle",
                      " loud", " on repeat", " from my library", " in the living room"],
        "synonyms": {"play": ["play", "put on"], "song": ["song", "track", "tune"],
                     "music": ["music", "songs"], "album": ["album", "record"]},
    },
    "add_to_playlist": {
        "name": "Add to a playlist",
        "slots": ["song", "artist", "album", "playlist"],
        "cores": [
            "add {song} to {playlist}",
            "add {song} by {artist} to my {playlist} playlist",
            "put {song} in {playlist}",
            "save {song} to {playlist}",
            "add this song to {playlist}",
            "add the album {album} to {playlist}",
            "include {song} in my {playlist}",
            "add {artist} to {playlist}",
            "put the track {song} on {playlist}",
            "add every song from {album} to {playlist}",
            "save this track to my {playlist} playlist",
            "add the current song to {playlist}",
            "throw {song} by {artist} onto {playlist}",
            "add {song} to the playlist {playlist}",
            "stick {song} in {playlist}",
            "add something by {artist} to {playlist}",
            "add {album} by {artist} to my playlist {playlist}",
            "save {song} for later in {playlist}",
            "i want {song} on my {playlist} list",
            "add the song {song} to my {playlist}",
        ],
        "modifiers": [" playlist", " at the top", " at the end", " as well", " too",
                      " for the weekend", " for tomorrow's trip", " next to the others"],
        "synonyms": {"add": ["add", "append"], "song": ["song", "track", "tune"],
                     "playlist": ["playlist", "list", "mix"], "save": ["save", "store"]},
    },
    "rate_book": {
        "name": "Rate a book",
        "slots": ["book", "rating", "number"],
        "cores": [
            "rate {book} {rating}",
            "give {book} {rating}",
            "i'd give {book} {rating}",
            "rate this book {rating}",
            "give the book {book} a rating of {rating}",
            "rate the novel {book} {rating}",
            "{book} deserves {rating}",
            "mark {book} as {rating}",
            "give {rating} to {book}",
            "rate {book} with {rating}",
            "i rate {book} {rating}",
            "my rating for {book} is {rating}",
            "score {book} {rating}",
            "rate the current book {rating}",
            "give this novel {rating}",
            "add a rating of {rating} to {book}",
            "rate {book} {number} out of 5",
            "give {book} {number} points",
            "the book {book} gets {rating}",
            "set my rating of {book} to {rating}",
        ],
        "modifiers": [" on my reading list", " in my library", " for the book club",
                      " and mark it as read", " and save it", " after reading it",
                      " in the reviews", " publicly"],
        "synonyms": {"book": ["book", "novel"], "rate": ["rate", "grade"],
                     "give": ["give", "award"], "rating": ["rating", "score"]},
    },
    "search_screening": {
        "name": "Find movie times",
        "slots": ["movie", "cinema", "city", "date", "time"],
        "cores": [
            "when is {movie} playing",
            "find showtimes for {movie}",
            "what time is {movie} on at {cinema}",
            "is {movie} showing at {cinema}",
            "show me the movie schedule at {cinema}",
            "what movies are playing at {cinema}",
            "find a cinema showing {movie} in {city}",
            "which theaters are playing {movie}",
            "when can i see {movie}",
            "movie times for {movie} in {city}",
            "list the films at {cinema}",
            "where is {movie} playing",
            "find screenings of {movie} near {city}",
            "get me showtimes at {cinema}",
            "is there a showing of {movie}",
            "what's on at {cinema}",
            "look up {movie} showtimes",
            "what films are showing in {city}",
            "search for {movie} screenings at {cinema}",
            "check if {movie} is still in theaters",
        ],
        "modifiers": [" {date}", " on {date}", " at {time}", " {date} at {time}",
                      " in {city}", " after {time}", " before {time}", " near {city}",
                      " around {time}", " this week"],
        "synonyms": {"movie": ["movie", "film"], "showtimes": ["showtimes", "show times"],
                     "theaters": ["theaters", "cinemas"], "find": ["find", "look up"]},
    },
    "send_message": {
        "name": "Send a message",
        "slots": ["contact", "app", "date", "time"],
        "cores": [
            "send a message to {contact}",
            "text {contact}",
            "message {contact}",
            "tell {contact} that [FREE]",
            "send {contact} a text saying [FREE]",
            "write to {contact}",
            "send {contact} a message",
            "let {contact} know that [FREE]",
            "text {contact} and say [FREE]",
            "drop {contact} a line",
            "send a note to {contact} saying [FREE]",
            "ping {contact}",
            "reply to {contact} with [FREE]",
            "send a quick message to {contact}",
            "shoot {contact} a message that [FREE]",
            "message {contact} [FREE]",
            "send {contact} the message [FREE]",
            "remind {contact} that [FREE]",
            "write a message to {contact} saying [FREE]",
            "send a text to {contact}",
        ],
        "modifiers": [" on {app}", " via {app}", " using {app}", " {date}", " at {time}",
                      " {date} at {time}", " through {app}", " later"],
        "synonyms": {"message": ["message", "text"], "send": ["send", "shoot"],
                     "saying": ["saying", "that says"], "write": ["write", "send"]},
    },
}

FREE_WORDS = ("i am running late see you soon dinner is ready call me back when you can "
              "the meeting moved to the afternoon don't forget the keys happy birthday "
              "pick up milk on the way we are at the station thanks for yesterday "
              "traffic is bad leaving now love you all good here just checking in").split()

# Chatter that answers no intent (some of it mentions vocabulary words).
UNKNOWN_TEMPLATES = [
    "what is the capital of {city}", "how tall is {artist}", "who wrote {book}",
    "tell me a joke", "what's the meaning of life", "translate {song} into french",
    "how far is {city} from {city}", "who directed {movie}", "open the garage door",
    "turn off the lights in the kitchen", "what year did {artist} start", "set a timer",
    "how do you spell {restaurant}", "is {cinema} open on sundays", "call a taxi",
    "what does {cuisine} food taste like", "who is {contact}", "order more coffee",
    "how many people live in {region}", "define {genre}", "do you like {genre}",
    "what's the population of {city}", "where was {movie} filmed", "buy {album}",
    "how long is {book}", "read me the news", "lock the front door", "good night",
    "{artist}", "{city}", "{song} lyrics", "summary of {book}", "reviews of {restaurant}",
]

# ---------------------------------------------------------------------------------------------
# Rules


def escape_literal(text):
    return re.sub(r"([.\[\]()*+?{}|^$\\])", r"\\\1", text)


def split_template(text):
    """Splits a template into parts: ('lit', text), ('slot', tag), ('free',)."""
    parts = []
    for piece in re.split(r"(\{[a-z_]+\}|\[FREE\])", text):
        if not piece:
            continue
        if piece == "[FREE]":
            parts.append(("free",))
        elif piece.startswith("{"):
            parts.append(("slot", piece[1:-1]))
        else:
            parts.append(("lit", piece))
    return parts


def slot_tags(template):
    return re.findall(r"\{([a-z_]+)\}", template)


def decorate(parts, synonyms):
    """Turns one literal part's synonym-able phrase into an alternation, sometimes."""
    out = []
    used = False
    for p in parts:
        if p[0] == "lit" and not used and rng.random() < 0.45:
            for word, alts in synonyms.items():
                m = re.search(r"(?<![a-z'])" + re.escape(word) + r"(?![a-z'])", p[1])
                if m:
                    alts = alts[:]
                    rng.shuffle(alts)
                    before, after = p[1][:m.start()], p[1][m.end():]
                    if before:
                        out.append(("lit", before))
                    out.append(("alt", alts))
                    if after:
                        out.append(("lit", after))
                    used = True
                    break
            else:
                out.append(p)
        else:
            out.append(p)
    return out


def make_rule(spec):
    """Returns the parts of one rule: an utterance with slots, optional prefix/suffix."""
    core = rng.choice(spec["cores"])
    tags = set(slot_tags(core))
    mods = []
    for _ in range(rng.choice([0, 1, 1, 2, 2, 2, 3, 3])):
        m = rng.choice(spec["modifiers"])
        mt = set(slot_tags(m))
        if mt & tags or m in mods:
            continue
        tags |= mt
        mods.append(m)
    prefix = rng.choice(QUESTION_PREFIXES if QUESTION_START.match(core) else PREFIXES)
    suffix = rng.choice(SUFFIXES)
    parts = []
    if prefix:
        parts.append(("opt", prefix) if rng.random() < 0.3 else ("lit", prefix))
    parts += decorate(split_template(core + "".join(mods)), spec["synonyms"])
    if suffix:
        parts.append(("opt", suffix) if rng.random() < 0.3 else ("lit", suffix))
    if rng.random() < 0.15:
        parts.append(("punct",))
    return parts


def render_rule(parts):
    out = []
    for p in parts:
        kind = p[0]
        if kind == "lit":
            out.append(escape_literal(p[1]))
        elif kind == "slot":
            out.append(f"<{p[1]}>")
        elif kind == "opt":
            out.append(f"({escape_literal(p[1])})?")
        elif kind == "alt":
            out.append("(" + "|".join(escape_literal(a) for a in p[1]) + ")")
        elif kind == "free":
            out.append(".+")
        elif kind == "punct":
            out.append("[.!?]?")
    return "".join(out)


def render_query(parts, vocab):
    out = []
    for p in parts:
        kind = p[0]
        if kind == "lit":
            out.append(p[1])
        elif kind == "slot":
            tag = p[1]
            out.append(rng.choice(REGEX_SAMPLES[tag] if tag in REGEX_SAMPLES else vocab[tag]))
        elif kind == "opt":
            if rng.random() < 0.5:
                out.append(p[1])
        elif kind == "alt":
            out.append(rng.choice(p[1]))
        elif kind == "free":
            n = rng.randint(2, 7)
            start = rng.randrange(len(FREE_WORDS) - n)
            out.append(" ".join(FREE_WORDS[start:start + n]))
        elif kind == "punct":
            out.append(rng.choice(["", "?", ".", "!"]))
    return "".join(out)


def utf16_len(s):
    return len(s.encode("utf-16-le")) // 2


def lowercase_words_in(texts, words):
    """The lowercase vocabulary words found inside literal text (they would tag it)."""
    blob = "\n".join(texts)
    return {w for w in words if w == w.lower() and w in blob}


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--out", default=os.path.join(os.path.dirname(os.path.abspath(__file__)),
                                                  "many_rules"))
    ap.add_argument("--expected", metavar="FILE",
                    help="also write the intent each query was made for ('unknown' for chatter)")
    args = ap.parse_args()

    vocab = build_vocab()

    # Lowercase words (cuisines, genres, weather) must not hide inside the literal text of the
    # templates, or every utterance would carry a stray tag.
    literals = []
    for spec in INTENTS.values():
        for t in spec["cores"] + spec["modifiers"]:
            literals += [p[1] for p in split_template(t) if p[0] == "lit"]
        for alts in spec["synonyms"].values():
            literals += alts
    literals += PREFIXES + SUFFIXES + FREE_WORDS
    for name in ("cuisine", "genre", "weather_condition"):
        clash = lowercase_words_in(literals, vocab[name])
        vocab[name] = [w for w in vocab[name] if w not in clash]

    intent_map = {}
    rule_parts = {}
    for intent, spec in INTENTS.items():
        want = rng.randint(*RULES_PER_INTENT)
        seen, rules, parts_list = set(), [], []
        tries = 0
        while len(rules) < want:
            tries += 1
            if tries > want * 200:
                sys.exit(f"cannot make {want} distinct rules for {intent}")
            parts = make_rule(spec)
            rule = render_rule(parts)
            if rule in seen:
                continue
            seen.add(rule)
            rules.append(rule)
            parts_list.append(parts)
        rule_parts[intent] = parts_list
        intent_map[intent] = {
            "name": spec["name"],
            "slots": [{"name": t, "tag": t} for t in spec["slots"]],
            "regexRules": rules,
            "blackList": [],
        }

    config = {
        "version": 20250601,
        "variableEntrys": [{"key": k, "value": v} for k, v in VARIABLES],
        "regexVocabMap": REGEX_VOCAB,
        "vocabMap": vocab,
        "intentMap": intent_map,
    }

    queries, expected = [], []
    intents = list(INTENTS)
    for _ in range(QUERY_COUNT):
        if rng.random() < UNKNOWN_SHARE:
            t = rng.choice(UNKNOWN_TEMPLATES)
            q = re.sub(r"\{([a-z_]+)\}", lambda m: rng.choice(vocab[m.group(1)]), t)
            expected.append("unknown")
        else:
            intent = rng.choice(intents)
            q = render_query(rng.choice(rule_parts[intent]), vocab)
            expected.append(intent)
        queries.append(q)

    os.makedirs(args.out, exist_ok=True)
    with open(os.path.join(args.out, "config.json"), "w", encoding="utf-8") as f:
        json.dump(config, f, ensure_ascii=False, indent=1)
        f.write("\n")
    with open(os.path.join(args.out, "queries.txt"), "w", encoding="utf-8") as f:
        for q in queries:
            f.write(q + "\n")
    if args.expected:
        with open(args.expected, "w", encoding="utf-8") as f:
            for e in expected:
                f.write(e + "\n")

    n_rules = sum(len(i["regexRules"]) for i in intent_map.values())
    units = sum(utf16_len(r) for i in intent_map.values() for r in i["regexRules"])
    n_words = sum(len(w) for w in vocab.values())
    n_patterns = sum(len(p) for p in REGEX_VOCAB.values())
    print(f"{len(intent_map)} intents, {n_rules} rules ({units / n_rules:.1f} UTF-16 units on "
          f"average), {len(vocab)} vocabularies / {n_words} words, {len(REGEX_VOCAB)} regex "
          f"vocabularies / {n_patterns} patterns, {len(queries)} queries -> {args.out}")


if __name__ == "__main__":
    main()
