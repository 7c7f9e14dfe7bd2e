"""What a scripted peer does with an echo request.

A policy is a function of the request and its number (from 1) that gives the answers as pairs of a
delay in seconds and an Echo. Policies nest: delayed(0.5, lying(source="203.0.113.9")).
"""
import dataclasses


def answer(request, _number):
    return [(0.0, request.reply())]


def silence(_request, _number):
    return []


def delayed(delay_s, inner=answer):
    return lambda request, number: [(wait + delay_s, reply)
                                    for wait, reply in inner(request, number)]


def drop_every(nth, inner=answer):
    """Leaves every n-th request unanswered."""
    return lambda request, number: [] if number % nth == 0 else inner(request, number)


def scripted(pattern, inner=answer):
    """Answers request k when pattern[k] is true; answers all after the pattern's end."""
    def policy(request, number):
        answered = number > len(pattern) or pattern[number - 1]
        return inner(request, number) if answered else []
    return policy


def only_to(targets, inner=answer):
    """Answers requests to these destinations alone."""
    return lambda request, number: inner(request, number) if request.destination in targets else []


def duplicated(times, inner=answer):
    return lambda request, number: inner(request, number) * times


def reordered(count, inner=answer):
    """Holds `count` requests back and answers them last first."""
    held = []

    def policy(request, number):
        held.append((request, number))
        if len(held) < count:
            return []
        answers = [reply for one in reversed(held) for reply in inner(*one)]
        held.clear()
        return answers
    return policy


def lying(inner=answer, **changes):
    """Answers with other fields than the honest ones: source, sequence, identifier, payload,
    ip_options. A callable is given the honest reply."""
    def lie(reply):
        fields = {name: value(reply) if callable(value) else value
                  for name, value in changes.items()}
        return dataclasses.replace(reply, **fields)

    return lambda request, number: [(wait, lie(reply)) for wait, reply in inner(request, number)]
