"""What the cells about the machine have in common."""

from cells import files_in


def judge_all(judge, service, reply=None, since=0, files=None, **values):
    """Every column, in the order in which things are to be looked at. Unless a cell is about certain files, the
    service's working folder is what has to stay empty."""
    judge.reply(reply, **values)
    judge.log(service, since, **values)
    judge.state(service)
    judge.files(*(files or ({}, strays(service))))
    judge.status(service)


def strays(service):
    """What the service left in its working folder."""
    own = {service.configuration_path.name, service.stdout_path.name, service.stderr_path.name}
    return {name: data for name, data in files_in(service.folder).items() if name not in own}
